// Process control: real children, and tools of our own in place of pidof and which.
#include <dlfcn.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <filesystem>

#include "qmxutil_process.h"
#include "qmxutil_signal.h"
#include "recording_base.h"
#include "replacement_tools.h"

namespace {
bool settle = false;       // waitpid() begins when the child has ended, so that looking once finds it so
pid_t victim = 0;          // the one process that may be signalled, a child of the test's own
int refused_kills = 0;     // attempts at any other: they go nowhere, whatever the code under test does
std::string command_line;  // what popen() was given last
}  // namespace

// No signal leaves this program but to its own child: a fault in the code under test must not reach the
// processes of the machine that it runs on.
extern "C" int kill(pid_t pid, int sig) {
  if (pid > 0 && pid == victim) return static_cast<int>(syscall(SYS_kill, pid, sig));
  ++refused_kills;
  errno = EPERM;
  return -1;
}

extern "C" FILE* popen(const char* command, const char* mode) {
  command_line = command;
  return reinterpret_cast<decltype(&popen)>(dlsym(RTLD_NEXT, "popen"))(command, mode);
}

extern "C" pid_t waitpid(pid_t pid, int* status, int options) {
  siginfo_t info;
  if (settle) waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
  return static_cast<pid_t>(syscall(SYS_wait4, pid, status, options, nullptr));
}

namespace {

using qmxtest::recording;

auto open_descriptors() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }

// Some emulators run the child of posix_spawn() in a copy of the memory, where its exec cannot tell why it
// failed.
bool exec_failure_is_told() {
  char name[] = "/nowhere";
  char* const argv[] = {name, nullptr};
  pid_t child;
  if (posix_spawn(&child, name, nullptr, nullptr, argv, environ) != 0) return true;
  waitpid(child, nullptr, 0);
  return false;
}

class ProcessTest : public qmxtest::BaseTest {
 protected:
  void SetUp() override {
    BaseTest::SetUp();
    victim = refused_kills = 0;
    kill(0, 0);  // to nobody and no signal: only asks whose kill() it is
    ASSERT_EQ(refused_kills--, 1) << "signals would reach the machine";
  }
  void TearDown() override {
    BaseTest::TearDown();
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child was left behind";
    EXPECT_EQ(open_descriptors(), descriptors_) << "a descriptor was left open";
  }
  std::string seen_by_tool() const { return qmxtest::read_file(tools_.dir().file("seen")); }
  const qmxtest::ReplacementTools tools_;
  const std::ptrdiff_t descriptors_ = open_descriptors();
};

using Texts = std::vector<std::string>;

// Checks what was told since the last check: each message with its level in front.
void expect_messages(const std::string& function, const Texts& expected) {
  Texts seen;
  for (const auto& trace : recording().traces()) {
    seen.push_back(std::to_string(trace.level) + " " + trace.text);
    EXPECT_EQ(trace.function, function);
    EXPECT_EQ(trace.module + " " + trace.file, "qmxutil_proc qmxutil_process.cpp");
  }
  EXPECT_EQ(seen, expected);
  recording().clear_traces();
}

// Checks the result of a call, and what the call told.
void expect_call(const std::string& function, int result, int expected, const Texts& messages) {
  EXPECT_EQ(result, expected) << testing::PrintToString(messages);
  expect_messages("QMXUtil_" + function, messages);
}

TEST_F(ProcessTest, RunExTellsHowTheProgramEnded) {
  for (const auto& [path, args, code] : {std::tuple{"/bin/true", "", 0},
                                         {"/bin/false", nullptr, 1},
                                         {"/bin/sh", "-c exit\t255", 255},
                                         {"/bin/sh", "-c kill${IFS}-9${IFS}$$", -1}}) {
    const std::string ending = "exited with status " + std::to_string(code) + "\n";
    for (const bool wait : {true, false}) {
      settle = !wait;
      expect_call("ProcessRunEx", QMXUtil_ProcessRunEx(path, args, wait), code,
                  {code < 0 ? "1 Process terminated by signal 9\n"
                   : wait   ? "2 Process " + ending
                            : "1 Process already " + ending});
    }
    settle = false;
  }
  expect_call("ProcessRunEx", QMXUtil_ProcessRunEx(nullptr, "", 1), -1, {"1 Invalid path\n"});
  if (!exec_failure_is_told()) return;
  expect_call("ProcessRunEx", QMXUtil_ProcessRunEx("true", nullptr, 1), ENOENT,
              {"1 posix_spawn failed: 2\n"});
}

TEST_F(ProcessTest, RunExSplitsItsArgumentsAtBlanksOnly) {
  const std::string program = tools_.tool("show", "for a; do printf '%s|' \"$a\"; done >\"${0%/*}/seen\"");
  std::string words, thirty;
  for (int i = 0; i < 40; ++i) {
    const std::string word(1 + i % 3, static_cast<char>('!' + i));
    words.append(" ").append(word);
    if (i < 30) thirty.append(word).append("|");
  }
  for (const auto& [args, seen] : {std::pair<std::string, std::string>{"    ", ""},
                                   {"  -a   -b  ", "-a|-b|"},
                                   {"a\tb 'c d' $HOME \\", "a\tb|'c|d'|$HOME|\\|"},
                                   {words, thirty},
                                   {"a " + std::string(600, 'x'), "a|" + std::string(509, 'x') + "|"}}) {
    EXPECT_EQ(QMXUtil_ProcessRunEx(program.c_str(), args.c_str(), 1), 0);
    EXPECT_EQ(seen_by_tool(), seen);
  }
}

TEST_F(ProcessTest, AProgramThatIsNotWaitedForIsItsStartersToReap) {
  const int child = QMXUtil_ProcessRunEx("/bin/sleep", "100", 0);
  ASSERT_GT(child, 0);
  const std::string pid = std::to_string(child);
  expect_messages("QMXUtil_ProcessRunEx", {"1 Process still running: pid=" + pid + "\n"});
  victim = child;
  EXPECT_EQ(QMXUtil_ProcessKill(nullptr, child), 1);
  int status;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
  EXPECT_EQ(QMXUtil_ProcessKill(nullptr, child), 1) << "gone already";
  expect_messages("QMXUtil_ProcessKill",
                  {"1 No such process ((null): " + pid + ") to kill! (Or... Zombie?)\n"});
}

TEST_F(ProcessTest, RunFindsTheProgramAndPassesItsArgumentWhole) {
  tools_.tool("show", "printf '%s:%s' $# \"$1\" >\"${0%/*}/seen\"; exit 9");
  int child = 0;
  EXPECT_EQ(QMXUtil_ProcessRun("show", "one  'argument' $HOME", 1, nullptr), 1);
  EXPECT_EQ(seen_by_tool(), "1:one  'argument' $HOME");
  EXPECT_EQ(QMXUtil_ProcessRun("show", nullptr, 1, &child), 1);
  EXPECT_GT(child, 0);
  EXPECT_EQ(seen_by_tool(), "0:");
  EXPECT_EQ(QMXUtil_ProcessRun("show", nullptr, 0, &child), 1);
  EXPECT_EQ(waitpid(child, nullptr, 0), child);
  expect_call("ProcessRun", QMXUtil_ProcessRun(nullptr, "x", 1, &child), 0, {"1 NULL argument!\n"});
  if (!exec_failure_is_told()) return;
  child = -7;
  EXPECT_EQ(QMXUtil_ProcessRun("no-such-program", nullptr, 1, &child), 0);
  EXPECT_EQ(QMXUtil_ProcessRun("no-such-program", "x", 0, &child), 0);
  EXPECT_EQ(child, -7);
  expect_messages("QMXUtil_ProcessRun", {"1 Failed to run process (no-such-program (null))\n",
                                         "1 Failed to run process (no-such-program x)\n"});
}

TEST_F(ProcessTest, ShellCommandsEndAsTabulated) {
  for (const auto& [command, code, messages] :
       {std::tuple{static_cast<const char*>(nullptr), -1, Texts{"1 Invalid command\n"}},
        {"", -1, {"1 Invalid command\n"}},
        {"test \"$(echo a b | tr ' ' -)\" = a-b", 0, {}},
        {"exit 3", 3, {"1 Command exited with status 3\n"}},
        {"kill -9 $$", -1, {"1 Command terminated by signal 9\n"}}}) {
    expect_call("ExecShell", QMXUtil_ExecShell(command), code, messages);
  }
}

TEST_F(ProcessTest, AShellThatCannotBeStartedIsTold) {
  if (!exec_failure_is_told()) GTEST_SKIP();
  const std::string endless(1 << 20, ':');  // more than exec takes
  EXPECT_EQ(QMXUtil_ExecShell(endless.c_str()), 127);
  const Texts told = recording().trace_texts();
  ASSERT_EQ(told.size(), 2u);
  EXPECT_TRUE(told[0].starts_with("execl failed for command: ::"));
  EXPECT_EQ(told[1], "Command exited with status 127\n");
  recording().clear_traces();
  if (geteuid() != 0) return;  // the limit is a user's: become one that has too many processes already
  qmxtest::with_limit(RLIMIT_NPROC, [] {
    ASSERT_EQ(setresuid(65534, 65534, 0), 0);
    const int result = QMXUtil_ExecShell("exit 0");
    ASSERT_EQ(setresuid(0, 0, 0), 0);
    EXPECT_EQ(result, -1);
  });
  expect_messages("QMXUtil_ExecShell", {"1 vfork failed\n"});
}

TEST_F(ProcessTest, WaitingThatFailsIsTold) {
  signal(SIGCHLD, SIG_IGN);  // the system reaps: there is nothing to wait for
  expect_call("ExecShell", QMXUtil_ExecShell("exit 0"), -1, {"1 waitpid failed\n"});
  expect_call("ProcessRunEx", QMXUtil_ProcessRunEx("/bin/true", nullptr, 1), -1, {"1 waitpid failed\n"});
  settle = true;
  expect_call("ProcessRunEx", QMXUtil_ProcessRunEx("/bin/true", nullptr, 0), -1,
              {"1 waitpid(WNOHANG) failed\n"});
  settle = false;
  expect_call("ProcessRun", QMXUtil_ProcessRun("true", nullptr, 1, nullptr), 1,
              {"1 Process (true (null)) executed, but waiting failed\n"});
  signal(SIGCHLD, SIG_DFL);
}

TEST_F(ProcessTest, NamesReachTheToolsCutAndWithoutMeaningToTheShell) {
  for (const char* tool : {"pidof", "which"}) {
    tools_.tool(tool, "printf '%s:%s' $# \"$1\" >\"${0%/*}/seen\"; echo 123 45");
  }
  constexpr char kHarmless[] = "azAZ09_./+:,@%-";
  for (const std::string name : {"prog", kHarmless, ""}) {
    QMXUtil_ProcessPID(name.c_str());
    EXPECT_EQ(command_line, "pidof " + name);
    QMXUtil_ProcessWhich(name.c_str());
    EXPECT_EQ(command_line, "which " + name);
    EXPECT_EQ(seen_by_tool(), (name.empty() ? "0:" : "1:") + name);
  }
  Texts names = {"*", "x; $(touch pwned)", "'; `touch pwned`; '", "a\nb", std::string(200, '\'')};
  for (int i = 0; i < 40; ++i) {
    std::string name(1 + qmxtest::below(100), ' ');
    for (char& c : name) c = static_cast<char>(qmxtest::below(255) + 1);
    if (name.find('\n') == std::string::npos) names.push_back(name);
  }
  for (const std::string& name : names) {
    const qmxtest::GuardedBytes text(name + std::string(1, '\0'));
    EXPECT_EQ(QMXUtil_ProcessPID(text.text()), 123);
    EXPECT_EQ(seen_by_tool(), "1:" + name.substr(0, 57));
    EXPECT_EQ(QMXUtil_ProcessWhich(text.text()), 1);
    EXPECT_EQ(seen_by_tool(), "1:" + name.substr(0, 25));
  }
  EXPECT_FALSE(std::filesystem::exists("pwned"));
  expect_messages("", {});
}

TEST_F(ProcessTest, NoMoreIsReadThanIsLookedAt) {
  for (const char* tool : {"pidof", "which"}) tools_.tool(tool, "while printf 7777777777; do :; done 2>&-");
  EXPECT_EQ(QMXUtil_ProcessWhich("some"), 1);
  EXPECT_EQ(QMXUtil_ProcessPID("some"), 0) << "no process id";
}

TEST_F(ProcessTest, ToolsThatPrintNothingFindNothing) {
  EXPECT_EQ(QMXUtil_ProcessWhich("sh"), 1);
  for (const char* tool : {"pidof", "which"}) tools_.tool(tool, "exit 0");
  EXPECT_EQ(QMXUtil_ProcessWhich("sh") + QMXUtil_ProcessWhich(nullptr), 0);
  expect_call("ProcessPID", QMXUtil_ProcessPID(nullptr), 0, {"1 NULL argument!\n"});
  expect_call("ProcessPID", QMXUtil_ProcessPID("some"), 0, {"2 some is not running\n"});
  qmxtest::with_limit(RLIMIT_NOFILE, [] {  // no pipe to be had
    EXPECT_EQ(QMXUtil_ProcessPID("some") + QMXUtil_ProcessWhich("sh"), 0);
  });
  expect_messages("QMXUtil_ProcessPID", {"2 some is not running\n"});
}

TEST_F(ProcessTest, KillNeverReachesAGroup) {
  for (const int pid : {0, -1, -12345, INT_MIN}) {
    const std::string number = std::to_string(pid);
    tools_.tool("pidof", "echo " + number);
    EXPECT_EQ(QMXUtil_ProcessKill(nullptr, pid), 0);
    expect_call("ProcessKill", QMXUtil_ProcessKill("some", getpid()), 0,
                {"1 No such process ((null): " + number + ") to kill!\n",
                 "1 No such process (some: " + number + ") to kill!\n"});
  }
  tools_.tool("pidof", "echo 4294967297");  // no process id: must not become another one's
  EXPECT_EQ(QMXUtil_ProcessKill("some", 0), 0);
  tools_.tool("pidof", "[ \"$*\" ] || [ $# = 0 ] || echo 77");  // small tool boxes answer an empty word so
  EXPECT_EQ(QMXUtil_ProcessKill("", 0), 0);
  EXPECT_EQ(refused_kills, 0) << "nothing was to be signalled";
}

TEST_F(ProcessTest, KillTriesTenTimesWhenItIsNotAllowedTo) {
  EXPECT_EQ(QMXUtil_ProcessKill(nullptr, getpid()), 0);
  EXPECT_EQ(refused_kills, 10);
  EXPECT_EQ(recording().calls_of("ThreadSleep 100").size(), 10u);
  expect_messages("QMXUtil_ProcessKill", {"1 Failed to kill ((null): " + std::to_string(getpid()) + ")\n"});
}

TEST_F(ProcessTest, SignalsDoNotEndAWait) {
  tools_.tool("pidof", "printf 12; sleep 0.1; echo 34");  // the line comes in two halves
  tools_.tool("which", "sleep 0.1; echo found");
  tools_.tool("slow", "sleep 0.1; exit 5");
  signal(SIGALRM, SIG_IGN);  // put back while one may still be on its way
  ASSERT_EQ(QMXUtil_RegSigHandler(SIGALRM, QMXUtil_Signal_Func), 0);
  const itimerval often = {{0, 2000}, {0, 2000}}, never = {};
  setitimer(ITIMER_REAL, &often, nullptr);
  EXPECT_EQ(QMXUtil_ProcessPID("some"), 1234);
  EXPECT_EQ(QMXUtil_ProcessWhich("some"), 1);
  EXPECT_EQ(QMXUtil_ExecShell("slow"), 5);
  EXPECT_EQ(QMXUtil_ProcessRunEx(tools_.dir().file("slow").c_str(), nullptr, 1), 5);
  EXPECT_EQ(QMXUtil_ProcessRun("slow", nullptr, 1, nullptr), 1);
  setitimer(ITIMER_REAL, &never, nullptr);
  EXPECT_EQ(QMXUtil_UnRegSigHandler(SIGALRM), 0);
  EXPECT_EQ(recording().traces().size(), 2u) << "the two exit codes, no failure";
}

}  // namespace
