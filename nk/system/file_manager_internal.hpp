// FileManager's seam for tests: failures injected into removals, for tests that need an
// item nobody can remove (root ignores permissions) or a removal that fails a set number
// of times.
#pragma once

#include <functional>
#include <string>

namespace nk {

// Called with the item's path at the start of each removeItemAtPath and removeItemAtURL.
// A non-zero errno value fails that removal with it and leaves the item untouched; 0 lets
// the removal go on. The hook may throw, standing for the platform raising. An empty
// function removes the hook. Process-wide; called on whichever thread removes.
using RemovalFaultHook = std::function<int(const std::string& path)>;
void setRemovalFaultHookForTesting(RemovalFaultHook hook);

}  // namespace nk
