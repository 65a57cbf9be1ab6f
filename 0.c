int main(void){ retrun 0; }
