#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

#include "hds/common/HDSExport.h"

// One CCI call as the runner reports it to an observer once the child has ended.
struct VtProcessCall {
  const char* command;    // the printable command line: cut after "login", so no password
  long long startUnixMs;  // wall clock at the start, milliseconds since the epoch
  double durationMs;
  int exitCode;  // -1 when the child did not start, timed out or its end was not observed
  bool started;
  bool timedOut;
  const char* out;  // what the child wrote to stdout and stderr (empty after a time-out)
  size_t outSize;
  const char* err;
  size_t errSize;
};

// A process-wide observer of CCI calls, for traces and accounting. The library never installs
// one; without one, a call costs nothing more. Set it before commands run and remove it
// (nullptr) after they end: the observer is called on the thread that ran the call, from many
// threads at once, and must not throw.
typedef void (*VtProcessObserver)(void* context, const VtProcessCall& call);
HDS_API void VtSetProcessObserver(VtProcessObserver observer, void* context);
// The observer now installed (nullptr when none) and its context.
HDS_API VtProcessObserver VtGetProcessObserver(void** context);

// One child process: "/bin/sh -c LINE" (or any argument vector) in its own process group, with
// stdout and stderr trapped through close-on-exec pipes that are read concurrently, stdin from
// /dev/null, LC_ALL=C in its environment. A time-out kills the whole group (TERM, short grace,
// KILL), reaps it and reports the error text "timedout". Safe to use from many threads at once
// (one object per call).
class HDS_API VtProcess {
 public:
  VtProcess();
  ~VtProcess();  // kills and reaps a child that is still running
  VtProcess(const VtProcess&) = delete;
  VtProcess& operator=(const VtProcess&) = delete;

  // Which of stdout and stderr are captured (both unless told otherwise); with SetSilence(true)
  // the others go to /dev/null instead of this process's own. Set before StartProcess.
  void TrapIO(bool trapStdout, bool trapStderr);
  void SetSilence(bool silent);

  // argv is null-terminated; argv[0] is the program path. false, with *error set, when the child
  // could not be started. flags is reserved (0).
  bool StartProcess(char* const argv[], std::string* error, int flags);

  // Waits until the child ends or timeoutSec passes (<= 0: no time-out). true when the child
  // ended and its exit code is in *exitCode (128 + signal number when a signal ended it). false
  // with *error "timedout" on a time-out; false with another text when the end was not observed.
  bool WaitForProcessToEnd(int* exitCode, std::string* error, int timeoutSec);
  // The same with a deadline in milliseconds.
  bool WaitForProcessToEndMs(int* exitCode, std::string* error, long timeoutMs);

  // What the child wrote; valid after WaitForProcessToEnd. The text is handed over, not copied:
  // a second call yields empty strings.
  void GetIO(std::string* out, std::string* err);

  // Runs "/bin/sh -c cmd" to its end without a time-out. Returns the exit code, or -1 when it
  // could not be run (*err then holds why). flags is reserved (0).
  int system(const char* cmd, std::string* out, std::string* err, int flags, bool trapIO);

  // -1 before a start.
  pid_t pid() const;

 private:
  struct Impl;
  Impl* m_pImpl;
};
