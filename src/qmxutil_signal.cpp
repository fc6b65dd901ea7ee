// Signal handler registry: installs plain handlers and puts back what was in force before.
#include "qmxutil_signal.h"

#include <signal.h>

#include <cerrno>
#include <cstring>

#include "internal/trace.h"

namespace {

constexpr char MODULE[] = "qmxutil-signal";

constexpr int kSignalSlots = 34;
constinit struct sigaction oldsigact[kSignalSlots] = {};  // what each registration replaced

bool has_slot(int sig) { return sig >= 0 && sig < kSignalSlots; }

}  // namespace

int QMXUtil_RegSigHandler(int sig, QMXSignalHandler handler) {
  struct sigaction action = {};
  sigemptyset(&action.sa_mask);
  action.sa_handler = handler;
  if (!has_slot(sig) || sigaction(sig, &action, &oldsigact[sig]) != 0) {
    const int error = has_slot(sig) ? errno : EINVAL;
    TRACE_ERROR("sigaction(sig:%d) error (errno %d, %s)\n", sig, error, strerror(error));
    return -1;
  }
  return 0;
}

int QMXUtil_UnRegSigHandler(int sig) {
  if (!has_slot(sig) || sigaction(sig, &oldsigact[sig], nullptr) != 0) {
    TRACE_ERROR("sigaction error\n");
    return -1;
  }
  return 0;
}

void QMXUtil_Signal_Func(int) {}
