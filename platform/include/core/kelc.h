// KELC utilities (libzem.so.7): the last-error facility, string lists, in-place string
// replacement and shell-word escaping.
#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

// Error codes set by the platform libraries (KELCErrGet). Each library documents
// which of these it sets; the values are stable because they appear in logs.
enum {
  KELC_ERR_NONE = 0x0000,
  KELC_ERR_OUT_OF_MEMORY = 0x0200,
  KELC_ERR_INVALID_ARGUMENT = 0x0D00,
  KELC_ERR_NOT_FOUND = 0x0E00,
  KELC_ERR_PERMISSION = 0x0F00,
  KELC_ERR_IO = 0x1000,
  KELC_ERR_PARSE = 0x1100,
  KELC_ERR_TOO_LONG = 0x1200,
  KELC_ERR_DATABASE = 0x1300,
  KELC_ERR_NO_USER = 0x1600,
};

// The last error of the calling thread: code, and the source file and line that set it.
int KELCErrGet(void);
const char* KELCErrorGetFile(void);
int KELCErrorGetLine(void);
// Records an error for the calling thread. `file` must outlive the thread's next
// KELCErrorGetFile call (a string literal such as __FILE__).
void KELCErrSetEx(int code, const char* file, int line);
#define KELC_ERR_SET(code) KELCErrSetEx((code), __FILE__, __LINE__)

// A growable list of owned strings.
typedef struct _tag_KELC_SZLIST {
  int nAlloc;        // slots allocated in ppszItem
  int nItem;         // items in use
  char** ppszItem;   // nItem owned, NUL-terminated strings
} KELC_SZLIST, *PKELC_SZLIST;

PKELC_SZLIST KELCSzListAlloc(int initialCount);
// Appends a copy of `item`; grows the list (and may move it, hence the double pointer).
// Negative on failure.
int KELCSzListAdd(PKELC_SZLIST* list, const char* item);
// The item at `index`, or NULL when out of range.
const char* KELCSzListGet(PKELC_SZLIST list, int index);
int KELCSzListCount(PKELC_SZLIST list);
void KELCSzListFree(PKELC_SZLIST list);

// Replaces `needle` by `replacement` in `buffer` (a NUL-terminated text in a buffer of
// `size` bytes). Mode 0 replaces every occurrence, mode 1 only the first. Returns the
// number of replacements; negative, with the buffer unchanged, when the result would
// not fit in `size` bytes with its terminator or an argument is invalid.
int KELCStrReplace(char* buffer, const char* needle, const char* replacement, int mode, size_t size);

// Writes into `out` a form of `in` that /bin/sh reads, unquoted, as exactly one word
// equal to `in`. Letters, digits and _ - . / , : + @ % = are kept; every other byte is
// preceded by a backslash, except a newline, which is written as '\n' in single quotes.
// An input without newlines needs at most 2 * (strlen(in) + 1) bytes. Returns the
// output length; negative when `outSize` is too small or an argument is invalid.
int KELCEncShParam(const char* in, char* out, int outSize);

#ifdef __cplusplus
}
#endif
