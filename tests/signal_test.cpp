// The signal handler registry: real signals, real actions.
#include <signal.h>

#include <cerrno>

#include "qmxutil_signal.h"
#include "recording_base.h"

namespace {

volatile sig_atomic_t handled_by = 0;
void handler_a(int) { handled_by = 'A'; }
void handler_b(int) { handled_by = 'B'; }

class SignalTest : public qmxtest::BaseTest {};

struct sigaction current_action(int sig) {
  struct sigaction action = {};
  sigaction(sig, nullptr, &action);
  return action;
}

TEST_F(SignalTest, RegistrationInstallsAPlainHandlerAndUnregistrationPutsTheOldActionBack) {
  struct sigaction before = {};
  before.sa_handler = handler_b;
  before.sa_flags = SA_RESTART;
  sigaddset(&before.sa_mask, SIGUSR2);
  ASSERT_EQ(sigaction(SIGUSR1, &before, nullptr), 0);

  ASSERT_EQ(QMXUtil_RegSigHandler(SIGUSR1, handler_a), 0);
  raise(SIGUSR1);
  EXPECT_EQ(handled_by, 'A');
  const struct sigaction installed = current_action(SIGUSR1);
  EXPECT_EQ(installed.sa_flags & (SA_RESTART | SA_SIGINFO | SA_RESETHAND), 0);
  EXPECT_FALSE(sigismember(&installed.sa_mask, SIGUSR2));

  ASSERT_EQ(QMXUtil_UnRegSigHandler(SIGUSR1), 0);
  const struct sigaction restored = current_action(SIGUSR1);
  EXPECT_EQ(restored.sa_handler, handler_b);
  EXPECT_TRUE(restored.sa_flags & SA_RESTART);
  EXPECT_TRUE(sigismember(&restored.sa_mask, SIGUSR2));
}

TEST_F(SignalTest, TheSlotHoldsWhatTheLastRegistrationReplaced) {
  ASSERT_EQ(QMXUtil_RegSigHandler(SIGUSR1, handler_a) + QMXUtil_RegSigHandler(SIGUSR1, handler_b), 0);
  signal(SIGUSR2, handler_a);    // never registered: goes back to its default
  for (int i = 0; i < 2; ++i) {  // the slot keeps its copy
    ASSERT_EQ(QMXUtil_UnRegSigHandler(SIGUSR1) + QMXUtil_UnRegSigHandler(SIGUSR2), 0);
    EXPECT_EQ(current_action(SIGUSR1).sa_handler, handler_a);
    EXPECT_EQ(current_action(SIGUSR2).sa_handler, SIG_DFL);
  }
}

TEST_F(SignalTest, RefusedNumbersAreTracedAndChangeNothing) {
  for (const int sig : {SIGKILL, SIGSTOP, 32, 33, 0, -1, 34, 35, 64, 1000, INT32_MIN, INT32_MAX}) {
    qmxtest::recording().clear_traces();
    errno = EXDEV;  // another call's
    EXPECT_EQ(QMXUtil_RegSigHandler(sig, handler_a), -1) << sig;
    EXPECT_EQ(QMXUtil_UnRegSigHandler(sig), -1) << sig;
    std::string told;
    for (const auto& trace : qmxtest::recording().traces()) {
      EXPECT_EQ(trace.level, 1);
      told += trace.module + " " + trace.file + " " + trace.function + ": " + trace.text;
    }
    EXPECT_EQ(told, "qmxutil-signal qmxutil_signal.cpp QMXUtil_RegSigHandler: sigaction(sig:" +
                        std::to_string(sig) + ") error (errno 22, Invalid argument)\n" +
                        "qmxutil-signal qmxutil_signal.cpp QMXUtil_UnRegSigHandler: sigaction error\n");
  }
}

}  // namespace
