// The one form of a platform log line: "FILE.cpp:LINE message", to syslog.
#pragma once

#include <syslog.h>

#define ORVA_LOG(level, fmt, ...) syslog((level), "%s:%d " fmt, __FILE_NAME__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)
