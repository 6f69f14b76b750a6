// Measures each stage of a listing by itself: parsing the query, walk, filters, sorters, clusters, set, summary, page,
// describe, dump, reply. Takes the options of the Google Benchmark library. Ends with 1 when a stage did not do what it
// is measured for.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "instance.h"
#include "stages.h"

namespace dirwell::bench {

namespace {

constexpr int signal_status = 128;  // what shells add to the number of a signal that ended a program

int measure(int argc, char **argv, const std::string &root) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  setUpInstance(root);
  registerListing();
  registerOrdering();
  registerCache();
  registerReply();
  const std::size_t run = benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return run == 0 || anyFailed() ? 1 : 0;
}

sigset_t awaitedSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGCHLD}) {
    sigaddset(&signals, signal);
  }
  return signals;
}

// Waits for the child's end and hands on to it what is meant to end us.
int statusOf(pid_t child, const sigset_t &signals) {
  int status = 0;
  while (::waitpid(child, &status, WNOHANG) != child) {
    int signal = 0;
    if (sigwait(&signals, &signal) == 0 && signal != SIGCHLD) {
      ::kill(child, signal);
    }
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : signal_status + WTERMSIG(status);
}

// The stages run in a child, so that whatever ends them leaves no files behind.
int run(int argc, char **argv) {
  const ScratchFolder scratch;
  const sigset_t signals = awaitedSignals();
  sigset_t before;
  sigprocmask(SIG_BLOCK, &signals, &before);
  const pid_t child = ::fork();
  if (child == 0) {
    sigprocmask(SIG_SETMASK, &before, nullptr);
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    int status = 1;
    try {
      status = measure(argc, argv, scratch.path());
    } catch (const std::exception &error) {
      std::fprintf(stderr, "bench_stages: %s\n", error.what());
    }
    std::exit(status);  // NOLINT(concurrency-mt-unsafe): unlike a return it leaves the folder to the parent
  }
  if (child < 0) {
    std::perror("bench_stages");
    return 1;
  }
  return statusOf(child, signals);
}

}  // namespace

}  // namespace dirwell::bench

int main(int argc, char **argv) {
  try {
    return dirwell::bench::run(argc, argv);
  } catch (const std::exception &error) {
    std::fprintf(stderr, "bench_stages: %s\n", error.what());
    return 1;
  }
}
