// Command lines.
#include "core/options.h"

#include "core/root.h"

namespace ORVA {

int GetOpt(int argc, char** argv, const char* shortopts, const option* longopts, bool longOnly) {
  for (;;) {
    const int c = longOnly ? getopt_long_only(argc, argv, shortopts, longopts, nullptr)
                           : getopt_long(argc, argv, shortopts, longopts, nullptr);
    if (c != kOptRoot) return c;
    ORVARootSet(optarg);
  }
}

}  // namespace ORVA
