#include "engines/AreaResize.h"

#include <emmintrin.h>
#include <immintrin.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <vector>

namespace cutlark::AreaResize {

namespace {

/// The source indices each output index averages along one axis: `count[o]` of them from
/// `first[o]`, their weights at `weight[o * width]` (the fraction of each inside the output's
/// area). Where padded, every output has `width` taps, the unused ones weighing nothing and the
/// first moved left at the far end, so a loop over them needs no branch and stays inside the row.
struct Taps {
    int width = 0;
    std::vector<int> first;
    std::vector<int> count;
    std::vector<float> weight;
};

Taps tapsAlong(int from, int into, bool padded) {
    // Each source index goes to the output its start falls in, with the share of it that falls
    // there; the rest of it (if any) goes to the next output.
    std::vector<int> to(static_cast<size_t>(from));
    std::vector<float> share(static_cast<size_t>(from));
    const double scale = double(from) / into;
    for (int i = 0; i < from; ++i) {
        int o = std::min(into - 1, int(std::floor(i / scale)));
        const double end = (o + 1) * scale; // where output o stops, in source units
        double part = end >= i + 1 ? 1.0 : end - i;
        if (part <= 1e-9) { // the boundary sits on i itself: all of it belongs to the next one
            o = std::min(into - 1, o + 1);
            part = 1.0;
        }
        to[size_t(i)] = o;
        share[size_t(i)] = float(o == into - 1 ? 1.0 : part);
    }
    const auto spills = [&](int i) { return share[size_t(i)] < 1.0f && to[size_t(i)] + 1 < into; };

    Taps taps;
    taps.first.assign(size_t(into), INT_MAX);
    std::vector<int> last(size_t(into), -1);
    for (int i = 0; i < from; ++i) {
        for (int o : {to[size_t(i)], spills(i) ? to[size_t(i)] + 1 : -1}) {
            if (o < 0) continue;
            taps.first[size_t(o)] = std::min(taps.first[size_t(o)], i);
            last[size_t(o)] = std::max(last[size_t(o)], i);
        }
    }
    taps.count.resize(size_t(into));
    for (int o = 0; o < into; ++o) {
        taps.count[size_t(o)] = last[size_t(o)] - taps.first[size_t(o)] + 1;
        taps.width = std::max(taps.width, taps.count[size_t(o)]);
    }
    if (padded)
        for (int o = 0; o < into; ++o)
            taps.first[size_t(o)] = std::min(taps.first[size_t(o)], from - taps.width);
    taps.weight.assign(size_t(into) * size_t(taps.width), 0.0f);
    for (int i = 0; i < from; ++i) {
        const int o = to[size_t(i)];
        taps.weight[size_t(o) * size_t(taps.width) + size_t(i - taps.first[size_t(o)])] = share[size_t(i)];
        if (spills(i))
            taps.weight[size_t(o + 1) * size_t(taps.width) + size_t(i - taps.first[size_t(o + 1)])] =
                1.0f - share[size_t(i)];
    }
    return taps;
}

__attribute__((always_inline)) inline __m128 load4(const uint8_t* p) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i bytes = _mm_cvtsi32_si128(*reinterpret_cast<const int*>(p));
    return _mm_cvtepi32_ps(_mm_unpacklo_epi16(_mm_unpacklo_epi8(bytes, zero), zero));
}

inline void store4(__m128 v, uint8_t* p) {
    const __m128i i32 = _mm_cvtps_epi32(v); // rounds to nearest
    const __m128i i16 = _mm_packs_epi32(i32, i32);
    *reinterpret_cast<int*>(p) = _mm_cvtsi128_si32(_mm_packus_epi16(i16, i16));
}

/// The pixels from `x` on of `sumRows`, one at a time. Inlined where it is called, so that in the
/// AVX2 version it is compiled with that version's instructions.
__attribute__((always_inline)) inline void sumRowsFrom(int x, const uint8_t* row, size_t stride,
                                                       const float* weight, int count, int pixels,
                                                       __m128* sum) {
    for (; x < pixels; ++x) {
        __m128 a = _mm_setzero_ps();
        const uint8_t* in = row + size_t(x) * 4;
        for (int k = 0; k < count; ++k, in += stride)
            a = _mm_add_ps(a, _mm_mul_ps(_mm_set1_ps(weight[k]), load4(in)));
        sum[x] = a;
    }
}

/// `sum` (one float per channel of each of `pixels` pixels) = the weighted sum of `count` rows
/// from `row` apart by `stride` bytes. Four pixels at a time from one 16-byte load per row.
void sumRows(const uint8_t* row, size_t stride, const float* weight, int count, int pixels, __m128* sum) {
    const __m128i zero = _mm_setzero_si128();
    int x = 0;
    for (; x + 4 <= pixels; x += 4) {
        __m128 a = _mm_setzero_ps(), b = a, c = a, d = a;
        const uint8_t* in = row + size_t(x) * 4;
        for (int k = 0; k < count; ++k, in += stride) {
            const __m128 w = _mm_set1_ps(weight[k]);
            const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
            const __m128i lo = _mm_unpacklo_epi8(bytes, zero), hi = _mm_unpackhi_epi8(bytes, zero);
            a = _mm_add_ps(a, _mm_mul_ps(w, _mm_cvtepi32_ps(_mm_unpacklo_epi16(lo, zero))));
            b = _mm_add_ps(b, _mm_mul_ps(w, _mm_cvtepi32_ps(_mm_unpackhi_epi16(lo, zero))));
            c = _mm_add_ps(c, _mm_mul_ps(w, _mm_cvtepi32_ps(_mm_unpacklo_epi16(hi, zero))));
            d = _mm_add_ps(d, _mm_mul_ps(w, _mm_cvtepi32_ps(_mm_unpackhi_epi16(hi, zero))));
        }
        sum[x] = a;
        sum[x + 1] = b;
        sum[x + 2] = c;
        sum[x + 3] = d;
    }
    sumRowsFrom(x, row, stride, weight, count, pixels, sum);
}

/// `sumRows` eight floats (two pixels) at a time, where the processor has AVX2. The same products
/// and sums in the same order as the SSE2 version (no fused multiply-add), so the result is the
/// same bytes on every machine.
__attribute__((target("avx2"))) void sumRowsAvx2(const uint8_t* row, size_t stride, const float* weight,
                                                 int count, int pixels, __m128* sum) {
    int x = 0;
    for (; x + 4 <= pixels; x += 4) {
        __m256 a = _mm256_setzero_ps(), b = a;
        const uint8_t* in = row + size_t(x) * 4;
        for (int k = 0; k < count; ++k, in += stride) {
            const __m256 w = _mm256_set1_ps(weight[k]);
            const __m128i lo = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(in));
            const __m128i hi = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(in + 8));
            a = _mm256_add_ps(a, _mm256_mul_ps(w, _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(lo))));
            b = _mm256_add_ps(b, _mm256_mul_ps(w, _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(hi))));
        }
        _mm256_storeu_ps(reinterpret_cast<float*>(sum + x), a);
        _mm256_storeu_ps(reinterpret_cast<float*>(sum + x + 2), b);
    }
    // The last pixels one at a time, inlined here rather than called in the SSE2 version: legacy SSE
    // code run while the wide registers' upper halves are in use is slowed down on many processors.
    sumRowsFrom(x, row, stride, weight, count, pixels, sum);
    _mm256_zeroupper();
}

/// One output row from its sums down the rows: each output pixel the weighted sum of its taps
/// (`Taps` of `width`, fixed at compile time when `Width` isn't 0), times `norm`.
template <size_t Width>
void sumAlong(const __m128* column, const int* first, const __m128* weight, size_t width, __m128 norm,
              int outputs, uint8_t* out) {
    const size_t taps = Width ? Width : width;
    for (int ox = 0; ox < outputs; ++ox, weight += taps) {
        const __m128* in = column + first[ox];
        __m128 sum = _mm_mul_ps(in[0], weight[0]);
        for (size_t k = 1; k < taps; ++k)
            sum = _mm_add_ps(sum, _mm_mul_ps(in[k], weight[k]));
        store4(_mm_mul_ps(sum, norm), out + 4 * ox);
    }
}

/// `sumAlong` two output pixels at a time where the processor has AVX2, with `pairWeights` holding
/// the weights of outputs 2p and 2p + 1 side by side (eight floats per tap). Each half does the very
/// products and sums of the SSE2 version in its order, so the bytes are the same.
template <size_t Width>
__attribute__((target("avx2"))) void sumAlongAvx2(const __m128* column, const int* first,
                                                  const float* pairWeights, const __m128* weight,
                                                  size_t width, __m128 norm, int outputs, uint8_t* out) {
    const size_t taps = Width ? Width : width;
    const __m256 norm2 = _mm256_set_m128(norm, norm);
    int ox = 0;
    for (; ox + 2 <= outputs; ox += 2, pairWeights += 8 * taps) {
        const auto* a = reinterpret_cast<const float*>(column + first[ox]);
        const auto* b = reinterpret_cast<const float*>(column + first[ox + 1]);
        __m256 sum = _mm256_mul_ps(_mm256_loadu2_m128(b, a), _mm256_loadu_ps(pairWeights));
        for (size_t k = 1; k < taps; ++k)
            sum = _mm256_add_ps(sum, _mm256_mul_ps(_mm256_loadu2_m128(b + 4 * k, a + 4 * k),
                                                   _mm256_loadu_ps(pairWeights + 8 * k)));
        const __m256i i32 = _mm256_cvtps_epi32(_mm256_mul_ps(sum, norm2)); // rounds to nearest
        const __m256i i16 = _mm256_packs_epi32(i32, i32);
        const __m256i u8 = _mm256_packus_epi16(i16, i16); // each half: its pixel's four bytes first
        const int lo = _mm256_cvtsi256_si32(u8), hi = _mm256_extract_epi32(u8, 4);
        std::memcpy(out + 4 * ox, &lo, 4);
        std::memcpy(out + 4 * ox + 4, &hi, 4);
    }
    for (; ox < outputs; ++ox) { // an odd last one
        const __m128* in = column + first[ox];
        const __m128* w = weight + size_t(ox) * taps;
        __m128 sum = _mm_mul_ps(in[0], w[0]);
        for (size_t k = 1; k < taps; ++k)
            sum = _mm_add_ps(sum, _mm_mul_ps(in[k], w[k]));
        store4(_mm_mul_ps(sum, norm), out + 4 * ox);
    }
    _mm256_zeroupper();
}

using RowSummer = void (*)(const uint8_t*, size_t, const float*, int, int, __m128*);

RowSummer rowSummer() {
    static const RowSummer chosen = __builtin_cpu_supports("avx2") ? sumRowsAvx2 : sumRows;
    return chosen;
}

} // namespace

void shrink(const uint8_t* src, int sw, int sh, size_t srcStride, uint8_t* dst, int dw, int dh,
            size_t dstStride, Lanes lanes) {
    const Taps xs = tapsAlong(sw, dw, true), ys = tapsAlong(sh, dh, false);
    const __m128 norm = _mm_set1_ps(float(double(dw) * dh / (double(sw) * sh)));
    // GCC warns that a container drops __m128's alignment attribute from the template argument; the
    // allocator (aligned new, since C++17) aligns each element to 16 bytes all the same.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wignored-attributes"
    std::vector<__m128> column(static_cast<size_t>(sw)); // one output row's sums, source columns apart
    const auto width = size_t(xs.width);
    std::vector<__m128> weights(xs.weight.size()); // each weight in all four lanes, ready to multiply
#pragma GCC diagnostic pop
    for (size_t i = 0; i < weights.size(); ++i)
        weights[i] = _mm_set1_ps(xs.weight[i]);
    const RowSummer summer = lanes == Lanes::widest ? rowSummer() : sumRows;
    const bool wide = summer == sumRowsAvx2;
    std::vector<float> pairWeights; // outputs 2p and 2p + 1 side by side, for the AVX2 pass
    if (wide) {
        pairWeights.resize(size_t(dw / 2) * width * 8);
        for (size_t p = 0; p < size_t(dw / 2); ++p)
            for (size_t k = 0; k < width; ++k)
                for (size_t lane = 0; lane < 8; ++lane)
                    pairWeights[(p * width + k) * 8 + lane] = xs.weight[(2 * p + lane / 4) * width + k];
    }
    for (int oy = 0; oy < dh; ++oy) {
        // Down the rows first, four pixels per load, so that the spread along the row is done once
        // per output row rather than once per source row.
        summer(src + size_t(ys.first[size_t(oy)]) * srcStride, srcStride,
               &ys.weight[size_t(oy) * size_t(ys.width)], ys.count[size_t(oy)], sw, column.data());
        uint8_t* out = dst + size_t(oy) * dstStride;
        // The common factors below 3 have two or three taps: unrolled for them.
        if (wide) {
            const float* pw = pairWeights.data();
            if (width == 2)
                sumAlongAvx2<2>(column.data(), xs.first.data(), pw, weights.data(), width, norm, dw, out);
            else if (width == 3)
                sumAlongAvx2<3>(column.data(), xs.first.data(), pw, weights.data(), width, norm, dw, out);
            else
                sumAlongAvx2<0>(column.data(), xs.first.data(), pw, weights.data(), width, norm, dw, out);
        } else if (width == 2)
            sumAlong<2>(column.data(), xs.first.data(), weights.data(), width, norm, dw, out);
        else if (width == 3)
            sumAlong<3>(column.data(), xs.first.data(), weights.data(), width, norm, dw, out);
        else
            sumAlong<0>(column.data(), xs.first.data(), weights.data(), width, norm, dw, out);
    }
}

} // namespace cutlark::AreaResize
