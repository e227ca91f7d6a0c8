// SPDX-License-Identifier: MIT
#include <ald/version.h>

namespace ald {

// ALD_VERSION comes from the build: the project's one version.
const char* version() noexcept { return ALD_VERSION; }

}  // namespace ald
