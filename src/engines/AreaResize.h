#pragma once

#include <cstddef>
#include <cstdint>

namespace cutlark::AreaResize {

/// Shrinks 4-byte pixels by area averaging: each output pixel is the mean of the source area it
/// covers, partial pixels at its edges counted by the fraction inside. Channels are treated alike, so
/// premultiplied colour stays premultiplied (rounding can't lift a colour above its alpha).
///
/// Row by output row: the source rows an output row covers are summed down (with AVX2 where the
/// processor has it, giving the same bytes as without), then each output pixel sums the columns it
/// covers. A source row that straddles two output rows is read for both. Requires `dw` ≤ `sw` and
/// `dh` ≤ `sh` (all at least 1); strides are in bytes.
/// `lanes` picks the instructions: the widest the processor has (the default), or SSE2 alone (so
/// tests can check that both give the same bytes).
enum class Lanes { widest, sse2 };
void shrink(const uint8_t* src, int sw, int sh, size_t srcStride, uint8_t* dst, int dw, int dh,
            size_t dstStride, Lanes lanes = Lanes::widest);

} // namespace cutlark::AreaResize
