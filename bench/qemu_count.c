/*
 * A plugin for qemu-user that counts the instructions of a bench program between its marks. For
 * every second write(-1, ...) it prints a line with the count to the file that its argument names.
 * The program itself prints the names of the operations.
 *
 * Debian packages no header for plugins; the declarations are those of version 1 of the interface.
 */
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

/* The callbacks need only some of their parameters. */
#pragma GCC diagnostic ignored "-Wunused-parameter"

#define EXPORT __attribute__((visibility("default")))

typedef uint64_t plugin_id;
struct qemu_plugin_tb;
struct qemu_plugin_insn;

void qemu_plugin_register_vcpu_tb_trans_cb(plugin_id, void (*)(plugin_id, struct qemu_plugin_tb*));
size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb*);
struct qemu_plugin_insn* qemu_plugin_tb_get_insn(const struct qemu_plugin_tb*, size_t index);
void qemu_plugin_register_vcpu_insn_exec_inline(struct qemu_plugin_insn*, int operation,
                                                void* counter, uint64_t value);
void qemu_plugin_register_vcpu_syscall_cb(plugin_id,
                                          void (*)(plugin_id, unsigned, int64_t, uint64_t, uint64_t,
                                                   uint64_t, uint64_t, uint64_t, uint64_t, uint64_t,
                                                   uint64_t));

EXPORT int qemu_plugin_version = 1;
EXPORT int qemu_plugin_install(plugin_id id, const void* info, int argc, char** argv);

enum { ADD = 0, ARM_WRITE = 4 };

static uint64_t executed, at_begin;
static int inside;
static FILE* out;

/* Counts each instruction by itself, so that a block that is left early counts as far as it ran. */
static void on_translation(plugin_id id, struct qemu_plugin_tb* block) {
    for (size_t n = 0; n < qemu_plugin_tb_n_insns(block); ++n) {
        qemu_plugin_register_vcpu_insn_exec_inline(qemu_plugin_tb_get_insn(block, n), ADD,
                                                   &executed, 1);
    }
}

static void on_system_call(plugin_id id, unsigned cpu, int64_t number, uint64_t a1, uint64_t a2,
                           uint64_t a3, uint64_t a4, uint64_t a5, uint64_t a6, uint64_t a7,
                           uint64_t a8) {
    if (number != ARM_WRITE || (int32_t)a1 != -1) return;
    if (inside) {
        fprintf(out, "%llu\n", (unsigned long long)(executed - at_begin));
        fflush(out);
    }
    at_begin = executed;
    inside = !inside;
}

int qemu_plugin_install(plugin_id id, const void* info, int argc, char** argv) {
    if (argc != 1 || strncmp(argv[0], "out=", 4) != 0) return -1;
    out = fopen(argv[0] + 4, "we");
    if (out == NULL) return -1;
    qemu_plugin_register_vcpu_tb_trans_cb(id, on_translation);
    qemu_plugin_register_vcpu_syscall_cb(id, on_system_call);
    return 0;
}
