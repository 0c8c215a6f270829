// Placeholder until the Highway kernels land: the vectorised set is the reference.
#include "image/colour_convert.h"

namespace zolt {
const ColourKernels& vectorColourKernels() { return referenceColourKernels(); }
}  // namespace zolt
