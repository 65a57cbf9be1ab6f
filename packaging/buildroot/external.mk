include $(sort $(wildcard $(BR2_EXTERNAL_TESSRA_PATH)/package/*/*.mk))
