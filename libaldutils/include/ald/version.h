// SPDX-License-Identifier: MIT
#pragma once
// The release: the library and the programs built with it are released
// together, under one version.

namespace ald {

// The release's version, as "MAJOR.MINOR.PATCH".
const char* version() noexcept;

}  // namespace ald
