// What the thread sanitizer is told in every program of its build: settings, and what it may pass over.

extern "C" {

const char *__tsan_default_options();
const char *__tsan_default_suppressions();

const char *__tsan_default_options() {
  // The daemon forks while its other threads run, and a request process starts a thread of its own; a service reports
  // what it found and ends with a status that no test expects.
  return "die_after_fork=0:exitcode=66";
}

const char *__tsan_default_suppressions() {
  return "";
}

}  // extern "C"
