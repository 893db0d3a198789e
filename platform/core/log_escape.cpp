// Linked into the programs that log request data (the server, the daemon, the runner):
// syslog and its fortified forms are interposed so that every line, whichever library
// or module writes it, reaches the log with its control characters escaped. A newline
// in a task name or a request parameter can then never forge a line of its own, and
// escape sequences never reach a terminal that shows the log.
#include <dlfcn.h>
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <syslog.h>

#include <string>

namespace {

using SyslogFn = void (*)(int, const char*, ...);

SyslogFn NextSyslog() {
  static SyslogFn next = reinterpret_cast<SyslogFn>(dlsym(RTLD_NEXT, "syslog"));
  return next;
}

void Emit(int priority, const char* format, va_list ap) {
  const int savedErrno = errno;  // for %m
  va_list copy;
  va_copy(copy, ap);
  char small[1024];
  int n = vsnprintf(small, sizeof small, format, copy);
  va_end(copy);
  std::string text;
  if (n >= static_cast<int>(sizeof small)) {
    text.resize(static_cast<size_t>(n) + 1);
    errno = savedErrno;
    vsnprintf(text.data(), text.size(), format, ap);
    text.resize(static_cast<size_t>(n));
  } else if (n > 0) {
    text.assign(small, static_cast<size_t>(n));
  }
  std::string out;
  out.reserve(text.size());
  for (unsigned char c : text) {
    if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c < 0x20 || c == 0x7f) {
      char hex[5];
      snprintf(hex, sizeof hex, "\\x%02x", c);
      out += hex;
    } else {
      out += static_cast<char>(c);
    }
  }
  if (SyslogFn next = NextSyslog()) next(priority, "%s", out.c_str());
}

}  // namespace

extern "C" {

void syslog(int priority, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  Emit(priority, format, ap);
  va_end(ap);
}

void vsyslog(int priority, const char* format, va_list ap) { Emit(priority, format, ap); }

void __syslog_chk(int priority, int, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  Emit(priority, format, ap);
  va_end(ap);
}

void __vsyslog_chk(int priority, int, const char* format, va_list ap) { Emit(priority, format, ap); }

}  // extern "C"
