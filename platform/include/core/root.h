// The system root (liborvacore.so.7): the one place where appliance paths are mapped.
#pragma once

#include <string>

namespace ORVA {

// The system root: set by ORVARootSet (programs' --root), else $ORVA_ROOT, else "/".
// Never ends with a slash unless it is "/".
const std::string& ORVARootGet();
// Overrides the root for this process (tests, --root). An empty value means "/".
void ORVARootSet(const std::string& root);
// Maps an absolute appliance path ("/usr/orva/x") under the system root
// ("$ROOT/usr/orva/x"). With the root "/" the path is returned unchanged.
std::string ORVAPathMap(const std::string& appliancePath);

}  // namespace ORVA
