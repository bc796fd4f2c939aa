/* A plugin for qemu-user: counts the instructions that a program runs, and adds one line with their number to
   the file OUT, its argument "out=OUT", when a process of it ends. What a process had run before a fork
   counts for both. */
#include <inttypes.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>

/* As much of the emulator's interface for plugins, version 1, as is used here: distributions have no header
 * of it. */
struct qemu_plugin_tb;
typedef uint64_t qemu_plugin_id_t;
enum { QEMU_PLUGIN_INLINE_ADD_U64 = 0 };
size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb* block);
void qemu_plugin_register_vcpu_tb_trans_cb(qemu_plugin_id_t id,
                                           void (*translated)(qemu_plugin_id_t, struct qemu_plugin_tb*));
void qemu_plugin_register_vcpu_tb_exec_inline(struct qemu_plugin_tb* block, int operation, void* number,
                                              uint64_t operand);
void qemu_plugin_register_atexit_cb(qemu_plugin_id_t id, void (*ended)(qemu_plugin_id_t, void*), void* data);

#define EXPORTED __attribute__((visibility("default")))
EXPORTED int qemu_plugin_version = 1;

static uint64_t instructions;
static char out[4096];

static void translated(qemu_plugin_id_t id, struct qemu_plugin_tb* block) {
    (void)id;
    qemu_plugin_register_vcpu_tb_exec_inline(block, QEMU_PLUGIN_INLINE_ADD_U64, &instructions,
                                             qemu_plugin_tb_n_insns(block));
}

static void ended(qemu_plugin_id_t id, void* data) {
    (void)id;
    (void)data;
    FILE* file = fopen(out, "ae");
    if (file == NULL) return;
    fprintf(file, "%" PRIu64 "\n", instructions);
    fclose(file);
}

EXPORTED int qemu_plugin_install(qemu_plugin_id_t id, const void* info, int argc, char** argv) {
    (void)info;
    if (argc != 1 || strncmp(argv[0], "out=", 4) != 0 || strlen(argv[0]) - 4 >= sizeof out) return 1;
    strcpy(out, argv[0] + 4);
    qemu_plugin_register_vcpu_tb_trans_cb(id, translated);
    qemu_plugin_register_atexit_cb(id, ended, NULL);
    return 0;
}
