// KELC utilities: per-thread last error, string lists, string replacement and
// shell-word escaping.
#include "core/kelc.h"

#include <stdlib.h>
#include <string.h>
#include <syslog.h>

#include "core/log.h"

namespace {

struct LastError {
  int code = KELC_ERR_NONE;
  const char* file = "";
  int line = 0;
};

thread_local LastError tLastError;

// Bytes that /bin/sh never treats specially inside a word (any position).
bool IsShellSafe(unsigned char c) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) {
    return true;
  }
  return strchr("_-./,:+@%=", c) != nullptr && c != '\0';
}

}  // namespace

extern "C" {

int KELCErrGet(void) { return tLastError.code; }

const char* KELCErrorGetFile(void) { return tLastError.file; }

int KELCErrorGetLine(void) { return tLastError.line; }

void KELCErrSetEx(int code, const char* file, int line) {
  tLastError.code = code;
  tLastError.file = file ? file : "";
  tLastError.line = line;
}

PKELC_SZLIST KELCSzListAlloc(int initialCount) {
  if (initialCount < 0) {
    KELC_ERR_SET(KELC_ERR_INVALID_ARGUMENT);
    return nullptr;
  }
  if (initialCount == 0) {
    initialCount = 8;
  }
  auto* list = static_cast<PKELC_SZLIST>(calloc(1, sizeof(KELC_SZLIST)));
  char** items = static_cast<char**>(calloc(static_cast<size_t>(initialCount), sizeof(char*)));
  if (!list || !items) {
    free(list);
    free(items);
    ORVA_LOG(LOG_ERR, "string list of %d items: out of memory", initialCount);
    KELC_ERR_SET(KELC_ERR_OUT_OF_MEMORY);
    return nullptr;
  }
  list->nAlloc = initialCount;
  list->nItem = 0;
  list->ppszItem = items;
  return list;
}

int KELCSzListAdd(PKELC_SZLIST* list, const char* item) {
  if (!list || !*list || !item) {
    KELC_ERR_SET(KELC_ERR_INVALID_ARGUMENT);
    return -1;
  }
  PKELC_SZLIST l = *list;
  if (l->nItem >= l->nAlloc) {
    if (l->nAlloc > (1 << 28)) {
      KELC_ERR_SET(KELC_ERR_TOO_LONG);
      return -1;
    }
    int grown = l->nAlloc > 0 ? l->nAlloc * 2 : 8;
    auto* items = static_cast<char**>(realloc(l->ppszItem, sizeof(char*) * static_cast<size_t>(grown)));
    if (!items) {
      KELC_ERR_SET(KELC_ERR_OUT_OF_MEMORY);
      return -1;
    }
    l->ppszItem = items;
    l->nAlloc = grown;
  }
  char* copy = strdup(item);
  if (!copy) {
    KELC_ERR_SET(KELC_ERR_OUT_OF_MEMORY);
    return -1;
  }
  l->ppszItem[l->nItem++] = copy;
  return l->nItem - 1;
}

const char* KELCSzListGet(PKELC_SZLIST list, int index) {
  if (!list || index < 0 || index >= list->nItem) {
    KELC_ERR_SET(KELC_ERR_INVALID_ARGUMENT);
    return nullptr;
  }
  return list->ppszItem[index];
}

int KELCSzListCount(PKELC_SZLIST list) { return list ? list->nItem : 0; }

void KELCSzListFree(PKELC_SZLIST list) {
  if (!list) {
    return;
  }
  for (int i = 0; i < list->nItem; ++i) {
    free(list->ppszItem[i]);
  }
  free(list->ppszItem);
  free(list);
}

int KELCStrReplace(char* buffer, const char* needle, const char* replacement, int mode, size_t size) {
  if (!buffer || !needle || !replacement || *needle == '\0' || (mode != 0 && mode != 1) || size == 0) {
    KELC_ERR_SET(KELC_ERR_INVALID_ARGUMENT);
    return -1;
  }
  const size_t len = strnlen(buffer, size);
  if (len == size) {  // not terminated within its own buffer
    KELC_ERR_SET(KELC_ERR_INVALID_ARGUMENT);
    return -1;
  }
  const size_t nlen = strlen(needle);
  const size_t rlen = strlen(replacement);

  // First pass: count, so that nothing is written unless the result fits.
  size_t count = 0;
  for (const char* p = strstr(buffer, needle); p; p = strstr(p + nlen, needle)) {
    ++count;
    if (mode == 1) {
      break;
    }
  }
  if (count == 0) {
    return 0;
  }
  if (count > static_cast<size_t>(0x7fffffff)) {
    KELC_ERR_SET(KELC_ERR_TOO_LONG);
    return -1;
  }
  size_t outLen = len;
  if (rlen >= nlen) {
    outLen += count * (rlen - nlen);
  } else {
    outLen -= count * (nlen - rlen);
  }
  if (outLen + 1 > size) {
    KELC_ERR_SET(KELC_ERR_TOO_LONG);
    return -1;
  }
  char* out = static_cast<char*>(malloc(outLen + 1));
  if (!out) {
    KELC_ERR_SET(KELC_ERR_OUT_OF_MEMORY);
    return -1;
  }
  char* w = out;
  const char* r = buffer;
  for (size_t i = 0; i < count; ++i) {
    const char* hit = strstr(r, needle);
    memcpy(w, r, static_cast<size_t>(hit - r));
    w += hit - r;
    memcpy(w, replacement, rlen);
    w += rlen;
    r = hit + nlen;
  }
  memcpy(w, r, len - static_cast<size_t>(r - buffer) + 1);
  memcpy(buffer, out, outLen + 1);
  free(out);
  return static_cast<int>(count);
}

int KELCEncShParam(const char* in, char* out, int outSize) {
  if (!in || !out || outSize <= 0) {
    KELC_ERR_SET(KELC_ERR_INVALID_ARGUMENT);
    return -1;
  }
  size_t need = 0;
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(in); *p; ++p) {
    need += *p == '\n' ? 3 : (IsShellSafe(*p) ? 1 : 2);
  }
  if (need + 1 > static_cast<size_t>(outSize)) {
    KELC_ERR_SET(KELC_ERR_TOO_LONG);
    return -1;
  }
  char* w = out;
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(in); *p; ++p) {
    if (*p == '\n') {
      *w++ = '\'';
      *w++ = '\n';
      *w++ = '\'';
    } else {
      if (!IsShellSafe(*p)) {
        *w++ = '\\';
      }
      *w++ = static_cast<char>(*p);
    }
  }
  *w = '\0';
  return static_cast<int>(need);
}

}  // extern "C"
