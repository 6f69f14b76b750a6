// Programs that are run, as they see themselves.

#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <pwd.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <map>
#include <memory>
#include <sstream>
#include <thread>

#include "platform/bus_service.h"
#include "platform/host/limits.h"
#include "platform/include/hxservice.h"
#include "platform/shortage.h"
#include "support/environment.h"
#include "support/private_root.h"
#include "support/refused_calls.h"
#include "support/temp_dir.h"

namespace dirwell::test {
namespace {

using testing::HasSubstr;

struct Free {
  void operator()(hx_io *io) const { hx_io_free(io); }
};
using Io = std::unique_ptr<hx_io, Free>;

std::string text_of(const Io &io) {
  return {hx_io_read(io.get(), 0), hx_io_size(io.get())};
}

struct Ended {
  int status = 0;
  std::string output;
  std::string error;
};

Ended run(std::initializer_list<const char *> arguments, hx_io *input = nullptr) {
  std::vector<const char *> list(arguments);
  list.push_back(nullptr);
  const Io output(hx_io_create());
  const Io error(hx_io_create());
  const int status = hx_io_execv(input, output.get(), error.get(), list.data());
  return {status, text_of(output), text_of(error)};
}

Ended shell(const char *script) {
  return run({"/bin/sh", "-c", script});
}

TEST(Execv, CapturesBothStreamsAndTheStatus) {
  const Ended ran = shell("echo out; echo err >&2; exit 7");
  EXPECT_EQ(ran.status, 7);
  EXPECT_EQ(ran.output, "out\n");
  EXPECT_EQ(ran.error, "err\n");
}

TEST(Execv, AppendsToWhatIsThere) {
  const Io output(hx_io_create());
  hx_io_write(output.get(), "before ", 7);
  const char *const arguments[] = {"/bin/echo", "after", nullptr};
  EXPECT_EQ(hx_io_execv(nullptr, output.get(), nullptr, arguments), 0);
  EXPECT_EQ(text_of(output), "before after\n");
}

TEST(Execv, DropsTheStreamsThatNobodyAskedFor) {
  const char *const tells_output[] = {"/usr/bin/perl", "-e", "print 'out'; print STDERR readlink '/proc/self/fd/1'",
                                      nullptr};
  const Io error(hx_io_create());
  EXPECT_EQ(hx_io_execv(nullptr, nullptr, error.get(), tells_output), 0);
  EXPECT_EQ(text_of(error), "/dev/null");
  const char *const tells_error[] = {"/usr/bin/perl", "-e", "print STDERR 'err'; print readlink '/proc/self/fd/2'",
                                     nullptr};
  const Io output(hx_io_create());
  EXPECT_EQ(hx_io_execv(nullptr, output.get(), nullptr, tells_error), 0);
  EXPECT_EQ(text_of(output), "/dev/null");
  EXPECT_EQ(hx_io_execv(nullptr, nullptr, nullptr, tells_error), 0);
}

TEST(Execv, GivesNoInputOrTheOneGiven) {
  EXPECT_EQ(shell("cat; readlink /proc/self/fd/0").output, "/dev/null\n");
  const Io input(hx_io_create());
  const std::string text(300'000, 'i');
  hx_io_write(input.get(), text.data(), text.size());
  EXPECT_TRUE(run({"/bin/cat"}, input.get()).output == text);
  EXPECT_EQ(run({"/bin/true"}, input.get()).status, 0) << "a program need not read it";
}

TEST(Execv, PassesArgumentsAsTheyAre) {
  EXPECT_EQ(run({"/usr/bin/printf", "%s|", "a b", "$HOME", "", "*", "'"}).output, "a b|$HOME||*|'|");
}

TEST(Execv, TellsTheSignalThatEndedTheProgram) {
  EXPECT_EQ(shell("kill -9 $$").status, 137);
}

TEST(Execv, FailsWhenThereIsNoProgram) {
  EXPECT_EQ(run({"/no/such/program"}).status, -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(run({"/etc/passwd"}).status, -1);
  EXPECT_EQ(errno, EACCES);
  const char *const none[] = {nullptr};
  EXPECT_EQ(hx_io_execv(nullptr, nullptr, nullptr, none), -1);
  EXPECT_EQ(errno, EINVAL);
}

void write_program(const std::string &below_root, const std::string &text, mode_t mode) {
  const std::string path = write_below_root(below_root, text);
  ::chmod(path.c_str(), mode);
}

TEST(Execv, RunsTheProgramBelowTheRootWhereItCan) {
  write_program("bin/echo", "#!/bin/sh\necho \"below the root: $*\"\n", 0755);
  EXPECT_EQ(run({"/bin/echo", "x"}).output, "below the root: x\n");
  ::chmod((private_root() + "/bin/echo").c_str(), 0644);
  EXPECT_EQ(run({"/bin/echo", "x"}).output, "x\n") << "not executable there";
  std::filesystem::remove(private_root() + "/bin/echo");
  std::filesystem::create_directories(private_root() + "/bin/echo");
  EXPECT_EQ(run({"/bin/echo", "x"}).output, "x\n") << "a folder";
  std::filesystem::remove(private_root() + "/bin/echo");
  EXPECT_EQ(run({"/bin/echo", "x"}).output, "x\n");
}

TEST(Execv, ShowsTheProgramItsFixedPath) {
  write_program("opt/tool", "#!/bin/sh\ntr '\\0' ' ' < /proc/$$/cmdline\n", 0755);
  // A script's name is the path that was executed; what follows is as given.
  EXPECT_EQ(run({"/opt/tool", "x"}).output, "/bin/sh " + private_root() + "/opt/tool x ");
  std::filesystem::create_directories(private_root() + "/usr/bin");
  std::filesystem::copy_file("/usr/bin/cat", private_root() + "/usr/bin/cat");
  EXPECT_EQ(run({"/usr/bin/cat", "/proc/self/cmdline"}).output, std::string("/usr/bin/cat\0/proc/self/cmdline\0", 32));
  std::filesystem::remove(private_root() + "/usr/bin/cat");
  std::filesystem::remove(private_root() + "/opt/tool");
}

TEST(Execv, JudgesByTheEffectiveIdentity) {
  write_program("bin/hostname", "#!/bin/sh\necho mine\n", 0700);
  EXPECT_EQ(run({"/bin/hostname"}).output, "mine\n");
  EXPECT_EQ(in_child([] {
              if (::seteuid(::getpwnam("nobody")->pw_uid) != 0) {
                ::_exit(9);
              }
              const Ended ran = run({"/bin/hostname"});
              ::_exit(ran.status == 0 && ran.output != "mine\n" ? 0 : 1);
            }),
            0);
  std::filesystem::remove(private_root() + "/bin/hostname");
}

// --- Identity ---

std::map<std::string, std::string> status_of_program() {
  std::map<std::string, std::string> fields;
  std::istringstream text(run({"/bin/cat", "/proc/self/status"}).output);
  for (std::string line; std::getline(text, line);) {
    const std::size_t colon = line.find(":\t");
    if (colon != std::string::npos) {
      fields[line.substr(0, colon)] = line.substr(colon + 2);
    }
  }
  return fields;
}

void expect_equal_or_end(const std::string &actual, const std::string &expected, int code) {
  if (actual != expected) {
    std::fprintf(stderr, "\"%s\" instead of \"%s\"\n", actual.c_str(), expected.c_str());
    ::_exit(code);
  }
}

TEST(Execv, GivesTheProgramTheEffectiveIdentityAsItsOnlyOne) {
  EXPECT_EQ(in_child([] {
              // As a request process: groups, group and user are the session user's, the real ids the daemon's.
              const std::array<gid_t, 3> groups = {4, 24, 44};
              if (::setgroups(groups.size(), groups.data()) != 0 || ::setegid(12) != 0 || ::seteuid(11) != 0) {
                ::_exit(9);
              }
              auto fields = status_of_program();
              expect_equal_or_end(fields["Uid"], "11\t11\t11\t11", 1);
              expect_equal_or_end(fields["Gid"], "12\t12\t12\t12", 2);
              expect_equal_or_end(fields["Groups"], "4 24 44 ", 3);
              for (const char *set : {"CapInh", "CapPrm", "CapEff", "CapAmb"}) {
                expect_equal_or_end(fields[set], "0000000000000000", 4);
              }
              expect_equal_or_end(fields["NoNewPrivs"], "1", 5);
              // The caller itself can still change back.
              ::_exit(::geteuid() == 11 && ::seteuid(0) == 0 ? 0 : 6);
            }),
            0);
}

TEST(Execv, LeavesNoWayBackToTheDaemonsRights) {
  EXPECT_EQ(in_child([] {
              if (::setegid(12) != 0 || ::seteuid(11) != 0) {
                ::_exit(9);
              }
              const Ended ran = run({"/usr/bin/perl", "-e",
                                     "$> = 0; print $> == 0 ? 'changed ' : 'refused ';"
                                     "$< = 0; print $< == 0 ? 'changed' : 'refused';"});
              expect_equal_or_end(ran.output, "refused refused", 1);
            }),
            0);
}

TEST(Execv, LeavesARootProgramItsRights) {
  auto fields = status_of_program();
  EXPECT_EQ(fields["Uid"], "0\t0\t0\t0");
  EXPECT_NE(fields["CapEff"], "0000000000000000");
}

TEST(Execv, DropsCapabilitiesThatAUserHolds) {
  EXPECT_EQ(in_child([] {
              // A user with an ambient capability, as a service manager may set a daemon up.
              __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
              __user_cap_data_struct sets[2] = {};
              sets[0].effective = sets[0].permitted = sets[0].inheritable = 1U << CAP_CHOWN;
              if (::prctl(PR_SET_KEEPCAPS, 1) != 0 || ::setresuid(11, 11, 11) != 0 ||
                  ::syscall(SYS_capset, &header, sets) != 0 ||
                  ::prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_RAISE, CAP_CHOWN, 0, 0) != 0) {
                ::_exit(9);
              }
              auto fields = status_of_program();
              for (const char *set : {"CapInh", "CapPrm", "CapEff", "CapAmb"}) {
                expect_equal_or_end(fields[set], "0000000000000000", 1);
              }
            }),
            0);
}

// --- Descriptors, signals, surroundings ---

TEST(Execv, GivesTheProgramNoOtherDescriptor) {
  const int leaked = ::open("/dev/zero", O_RDONLY);  // not close-on-exec
  std::array<int, 2> sockets = {-1, -1};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sockets.data()), 0);
  // The fourth is the folder that the program itself reads.
  EXPECT_EQ(run({"/bin/ls", "/proc/self/fd"}).output, "0\n1\n2\n3\n");
  EXPECT_GE(::fcntl(leaked, F_GETFD), 0) << "the caller keeps its own";
  ::close(leaked);
  ::close(sockets[0]);
  ::close(sockets[1]);
}

TEST(Execv, WorksWithoutStandardStreams) {
  EXPECT_EQ(in_child([] {
              ::close(0);
              ::close(1);
              ::close(2);
              const Ended ran = shell("cat; echo out; echo err >&2");
              ::_exit(ran.output == "out\n" && ran.error == "err\n" ? 0 : 1);
            }),
            0);
}

TEST(Execv, StartsTheProgramWithPlainSignals) {
  EXPECT_EQ(in_child([] {
              sigset_t some = {};
              ::sigemptyset(&some);
              ::sigaddset(&some, SIGUSR1);
              ::pthread_sigmask(SIG_BLOCK, &some, nullptr);
              ::signal(SIGPIPE, SIG_IGN);
              ::signal(SIGTERM, SIG_IGN);
              ::signal(SIGUSR2, [](int) {});
              auto fields = status_of_program();
              for (const char *set : {"SigBlk", "SigIgn", "SigCgt"}) {
                expect_equal_or_end(fields[set], "0000000000000000", 1);
              }
              sigset_t after = {};
              ::pthread_sigmask(SIG_SETMASK, nullptr, &after);
              ::_exit(::sigismember(&after, SIGUSR1) == 1 && ::sigismember(&after, SIGTERM) == 0 ? 0 : 2);
            }),
            0);
}

TEST(Execv, GivesTheProgramASessionOfItsOwn) {
  EXPECT_EQ(shell("set -- $(cat /proc/$$/stat); test $1 = $5 -a $1 = $6 && echo own").output, "own\n");
}

TEST(Execv, KeepsTheFirstMebibyteOfEachStreamAndReadsTheRest) {
  const Ended ran = shell("head -c 3000000 /dev/zero | tr '\\0' o; head -c 2000000 /dev/zero | tr '\\0' e >&2; exit 3");
  EXPECT_EQ(ran.status, 3) << "the program was not held back";
  EXPECT_TRUE(ran.output == std::string(1'048'576, 'o')) << ran.output.size();
  EXPECT_TRUE(ran.error == std::string(1'048'576, 'e')) << ran.error.size();
}

// --- Time ---

class ShortPrograms : public testing::Test {
 protected:
  void SetUp() override { host::limits().program = 300ms; }
  void TearDown() override { host::limits() = {}; }
};

TEST_F(ShortPrograms, AreKilledWithAllThatTheyStarted) {
  const auto begin = std::chrono::steady_clock::now();
  const Ended ran = shell("sleep 30 & echo $!; echo before; trap '' TERM INT; sleep 30; echo after");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 1500ms);
  EXPECT_EQ(ran.status, 137);
  EXPECT_THAT(ran.output, HasSubstr("before\n"));
  EXPECT_THAT(ran.output, testing::Not(HasSubstr("after")));
  const std::string child = ran.output.substr(0, ran.output.find('\n'));
  EXPECT_TRUE(eventually([&] {
    std::ifstream stat("/proc/" + child + "/stat");
    std::string text;
    std::getline(stat, text);
    return !stat || text.find(") Z ") != std::string::npos;
  })) << "what it started goes on";
}

TEST_F(ShortPrograms, AreKilledThoughTheyCloseTheirStreams) {
  EXPECT_EQ(shell("exec >&- 2>&-; sleep 30").status, 137);
}

TEST_F(ShortPrograms, AreKilledThoughTheyNeverStopWriting) {
  EXPECT_EQ(run({"/usr/bin/yes"}).status, 137);
}

TEST_F(ShortPrograms, AreKilledThoughStopped) {
  EXPECT_EQ(shell("kill -STOP $$").status, 137);
}

TEST(Execv, DoesNotWaitForAProcessThatKeepsThePipe) {
  const auto begin = std::chrono::steady_clock::now();
  const Ended ran = shell("sleep 3 & echo said; setsid sleep 3 & exit 4");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 2s);
  EXPECT_EQ(ran.status, 4);
  EXPECT_EQ(ran.output, "said\n");
}

TEST(Execv, ReadsAllThatAProgramWroteBeforeItsEnd) {
  for (int count = 0; count < 50; ++count) {
    EXPECT_EQ(shell("head -c 60000 /dev/zero").output.size(), 60'000U);
  }
}

TEST(Execv, GoesOnAfterInterruptions) {
  EXPECT_EQ(in_child([] {
              struct sigaction action = {};
              action.sa_handler = [](int) {};
              ::sigaction(SIGALRM, &action, nullptr);
              const itimerval often = {{0, 2000}, {0, 2000}};
              ::setitimer(ITIMER_REAL, &often, nullptr);
              const Ended ran = shell("sleep 0.3; echo done; exit 5");
              ::_exit(ran.status == 5 && ran.output == "done\n" ? 0 : 1);
            }),
            0);
}

TEST(Execv, DiesWithTheProcessThatStartedIt) {
  const TempDir folder;
  ::chmod(folder.path().c_str(), 0777);
  const std::string script = "echo $$ > " + folder.path() + "/pid; exec sleep 30";
  for (const bool as_user : {false, true}) {
    const pid_t starter = ::fork();
    if (starter == 0) {
      if (as_user && (::setegid(12) != 0 || ::seteuid(11) != 0)) {
        ::_exit(9);
      }
      shell(script.c_str());
      ::_exit(0);
    }
    std::string program;
    EXPECT_TRUE(eventually([&] {
      std::ifstream file(folder.path() + "/pid");
      return static_cast<bool>(std::getline(file, program)) && !file.eof();
    }));
    EXPECT_TRUE(std::filesystem::exists("/proc/" + program));
    ::kill(starter, SIGKILL);
    ::waitpid(starter, nullptr, 0);
    EXPECT_TRUE(eventually([&] {
      std::ifstream stat("/proc/" + program + "/stat");
      std::string text;
      std::getline(stat, text);
      return !stat || text.find(") Z ") != std::string::npos;
    })) << "it goes on without its starter";
    std::filesystem::remove(folder.path() + "/pid");
  }
}

std::size_t open_descriptors() {
  const std::filesystem::directory_iterator entries("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

TEST(Execv, LeavesNeitherDescriptorsNorZombies) {
  const std::size_t before = open_descriptors();
  shell("exit 1");
  run({"/no/such/program"});
  {
    host::limits().program = 100ms;
    shell("sleep 30");
    host::limits() = {};
  }
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST(Execv, FailsCleanlyWhenDescriptorsAreShort) {
  EXPECT_EQ(in_child([] {
              std::vector<int> taken;
              for (int descriptor = 0; (descriptor = ::open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) {
                taken.push_back(descriptor);
              }
              // With one more descriptor at each attempt every step fails once, until all of it works.
              for (std::size_t free = 0; free < 12; ++free) {
                const Ended ran = shell("echo out; echo err >&2");
                if (ran.status == 0 && ran.output == "out\n" && ran.error == "err\n") {
                  ::_exit(free > 3 && ::waitpid(-1, nullptr, WNOHANG) == -1 ? 0 : 1);
                }
                if (ran.status != -1 || errno != EMFILE) {
                  ::_exit(2);
                }
                ::close(taken.back());
                taken.pop_back();
              }
              ::_exit(3);
            }),
            0);
}

TEST(Execv, SaysSoWhenMemoryIsShortAtAnyStep) {
  const std::size_t before = open_descriptors();
  const char *const arguments[] = {"/bin/echo", "out", nullptr};
  std::size_t step = 0;
  for (bool failed = true; failed; ++step) {
    const Io output(hx_io_create());
    int status = 0;
    int reason = 0;
    {
      const FailingAllocation allocation(step);
      status = hx_io_execv(nullptr, output.get(), nullptr, arguments);
      reason = errno;
      failed = FailingAllocation::has_failed();
    }
    EXPECT_EQ(status, failed ? -1 : 0) << step;
    EXPECT_TRUE(!failed || reason == ENOMEM) << step;
    EXPECT_EQ(text_of(output), failed ? "" : "out\n") << step;
  }
  EXPECT_GT(step, 1U);
  EXPECT_EQ(open_descriptors(), before);
}

TEST(Execv, RunsNothingWhoseInputCannotBeGivenWhole) {
  EXPECT_EQ(
      in_child([] {
        const std::size_t before = open_descriptors();
        const Io input(hx_io_create());
        const std::string text(300'000, 'i');
        hx_io_write(input.get(), text.data(), text.size());
        ::signal(SIGXFSZ, SIG_IGN);
        rlimit size = {};
        ::getrlimit(RLIMIT_FSIZE, &size);
        const rlimit small = {100'000, size.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &small);
        const Ended ran = run({"/bin/cat"}, input.get());
        const int reason = errno;
        ::setrlimit(RLIMIT_FSIZE, &size);  // what counts the lines that run writes files
        ::_exit(ran.status == -1 && reason == EFBIG && ran.output.empty() && open_descriptors() == before ? 0 : 1);
      }),
      0);
}

TEST(Execv, FailsWhenAnotherTakesTheStatus) {
  EXPECT_EQ(
      in_child([] {
        ::signal(SIGCHLD, SIG_IGN);  // the kernel does
        const std::size_t before = open_descriptors();
        const Ended ran = shell("echo out; sleep 1; exit 7");  // not over before anybody has looked at it
        ::_exit(ran.status == -1 && errno == ECHILD && ran.output == "out\n" && open_descriptors() == before ? 0 : 1);
      }),
      0);
}

TEST(Execv, GoesOnWithoutAStreamThatCannotBeRead) {
  EXPECT_EQ(
      in_child([] {
        const std::size_t before = open_descriptors();
        refuse_calls(SYS_read, EIO, Argument{2, 16 * 1024});  // as long a read as only the streams' are
        const Ended ran = shell("echo out; echo err >&2; exit 7");
        ::_exit(ran.status == 7 && ran.output.empty() && ran.error.empty() && open_descriptors() == before ? 0 : 1);
      }),
      0);
}

TEST(Execv, RunsNothingOnceItsStarterSeemsToHaveDied) {
  const TempDir folder;
  EXPECT_EQ(in_child([&] {
              refuse_calls(SYS_getppid, 0);  // as where the parent is none of this machine's any more
              const Ended ran = shell(("touch " + folder.path() + "/ran").c_str());
              ::_exit(ran.status == -1 && errno == ECHILD && ::waitpid(-1, nullptr, WNOHANG) == -1 ? 0 : 1);
            }),
            0);
  EXPECT_FALSE(std::filesystem::exists(folder.path() + "/ran"));
}

TEST(Execv, RunsFromManyThreadsAtOnce) {
  std::atomic<int> good = 0;
  std::vector<std::thread> threads;
  threads.reserve(6);
  for (int count = 0; count < 6; ++count) {
    threads.emplace_back([&good, count] {
      for (int round = 0; round < 10; ++round) {
        const std::string text = std::to_string(count) + "-" + std::to_string(round);
        good += run({"/bin/echo", text.c_str()}).output == text + "\n" ? 1 : 0;
      }
    });
  }
  for (std::thread &thread : threads) {
    thread.join();
  }
  EXPECT_EQ(good, 60);
}

}  // namespace
}  // namespace dirwell::test
