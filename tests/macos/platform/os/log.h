// The unified log. The stand-in hands each line to the test: its format as it was compiled in, and
// what came of its arguments. The compiler checks formats against arguments as the platform's does.
#pragma once
#pragma clang system_header  // as the platform's own is: its macros are extensions of the language

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct os_log_s* os_log_t;
typedef uint8_t os_log_type_t;
enum {
  OS_LOG_TYPE_DEFAULT = 0x00,
  OS_LOG_TYPE_INFO = 0x01,
  OS_LOG_TYPE_DEBUG = 0x02,
  OS_LOG_TYPE_ERROR = 0x10,
  OS_LOG_TYPE_FAULT = 0x11,
};

os_log_t os_log_create(const char* subsystem, const char* category);
void standInLog(os_log_t log, os_log_type_t type, const char* format, ...)
    __attribute__((format(os_log, 3, 4)));

#define os_log_with_type(log, type, format, ...) standInLog(log, type, format, ##__VA_ARGS__)

#ifdef __cplusplus
}
#endif
