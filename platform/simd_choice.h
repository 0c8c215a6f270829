// Choice between the plain reference kernels and their vectorised versions. Set the
// environment variable ZOLTPANO_FORCE_REFERENCE (to anything but "0" or "") to run the
// reference kernels everywhere, e.g. to rule the vector code out when chasing a difference.
#pragma once

namespace zolt {

// Read once, on first use, and kept for the life of the process.
bool forceReferenceKernels();

}  // namespace zolt
