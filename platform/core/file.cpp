// Files and folders.
#include "core/file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ORVA {

bool MakeDirs(const std::string& dir, mode_t mode) {
  for (size_t pos = dir.find('/', 1);; pos = dir.find('/', pos + 1)) {
    if (mkdir(dir.substr(0, pos).c_str(), mode) != 0 && errno != EEXIST) return false;
    if (pos == std::string::npos) break;
  }
  struct stat st;
  if (stat(dir.c_str(), &st) != 0) return false;
  if (!S_ISDIR(st.st_mode)) errno = ENOTDIR;
  return S_ISDIR(st.st_mode);
}

bool WriteFileAtomic(const std::string& path, const std::string& text, mode_t mode) {
  const size_t slash = path.rfind('/');
  const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  std::string tmp = dir + "/." + path.substr(slash + 1) + ".XXXXXX";
  const int fd = mkostemp(tmp.data(), O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = fchmod(fd, mode) == 0;
  for (size_t done = 0; ok && done < text.size();) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno != EINTR) ok = false;
    if (n > 0) done += static_cast<size_t>(n);
  }
  ok = ok && fsync(fd) == 0;
  ok = close(fd) == 0 && ok;
  if (!ok || rename(tmp.c_str(), path.c_str()) != 0) {
    const int err = errno;
    unlink(tmp.c_str());
    errno = err;
    return false;
  }
  const int dirFd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ok = dirFd >= 0 && fsync(dirFd) == 0;
  if (dirFd >= 0) close(dirFd);
  return ok;
}

}  // namespace ORVA
