#pragma once

#include <cstddef>
#include <cstdint>

namespace cutlark::AreaResize {

/// Shrinks 4-byte pixels by area averaging: each output pixel is the mean of the source area it
/// covers, partial pixels at its edges counted by the fraction inside. Channels are treated alike, so
/// premultiplied colour stays premultiplied (rounding can't lift a colour above its alpha).
///
/// One pass over the source: each source pixel is spread over the one or two output columns it
/// overlaps, each filtered row over the one or two output rows it overlaps. Requires
/// `dw` ≤ `sw` and `dh` ≤ `sh` (all at least 1); strides are in bytes.
void shrink(const uint8_t* src, int sw, int sh, size_t srcStride, uint8_t* dst, int dw, int dh,
            size_t dstStride);

} // namespace cutlark::AreaResize
