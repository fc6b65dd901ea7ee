// A plugin of the user-mode emulator (its plugin interface, version 1; the header is not packaged): counts
// the guest's instructions, and hands the count to a guest that makes the system call 0x5153 with a place.
#include <stddef.h>
#include <stdint.h>

#define EXPORTED __attribute__((visibility("default")))

typedef uint64_t qemu_plugin_id_t;
struct qemu_plugin_tb;
struct qemu_info;
enum { kInlineAdd = 0 };

void qemu_plugin_register_vcpu_tb_trans_cb(qemu_plugin_id_t id,
                                           void (*translated)(qemu_plugin_id_t, struct qemu_plugin_tb*));
size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb* block);
void qemu_plugin_register_vcpu_tb_exec_inline(struct qemu_plugin_tb* block, int operation, void* counter,
                                              uint64_t amount);
void qemu_plugin_register_vcpu_syscall_cb(qemu_plugin_id_t id,
                                          void (*called)(qemu_plugin_id_t, unsigned, int64_t, uint64_t,
                                                         uint64_t, uint64_t, uint64_t, uint64_t, uint64_t,
                                                         uint64_t, uint64_t));

static const int64_t kCounterCall = 0x5153;
static uint64_t count;

static void translated(qemu_plugin_id_t id, struct qemu_plugin_tb* block) {
  (void)id;
  qemu_plugin_register_vcpu_tb_exec_inline(block, kInlineAdd, &count, qemu_plugin_tb_n_insns(block));
}

// A guest's addresses are the host's here.
static void called(qemu_plugin_id_t id, unsigned cpu, int64_t number, uint64_t place, uint64_t a2,
                   uint64_t a3, uint64_t a4, uint64_t a5, uint64_t a6, uint64_t a7, uint64_t a8) {
  (void)id, (void)cpu, (void)a2, (void)a3, (void)a4, (void)a5, (void)a6, (void)a7, (void)a8;
  if (number == kCounterCall) *(uint64_t*)(uintptr_t)place = count;
}

EXPORTED int qemu_plugin_version = 1;

EXPORTED int qemu_plugin_install(qemu_plugin_id_t id, const struct qemu_info* info, int argc, char** argv) {
  (void)info, (void)argc, (void)argv;
  qemu_plugin_register_vcpu_tb_trans_cb(id, translated);
  qemu_plugin_register_vcpu_syscall_cb(id, called);
  return 0;
}
