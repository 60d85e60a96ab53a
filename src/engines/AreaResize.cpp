#include "engines/AreaResize.h"

#include <emmintrin.h>

#include <algorithm>
#include <cmath>
#include <vector>

namespace cutlark::AreaResize {

namespace {

/// Where each source index goes along one axis: its first output index and the share of it that
/// falls there (the rest, if any, falls into the next output index).
struct Split {
    std::vector<int> to;
    std::vector<float> share;
};

Split splitAxis(int from, int into) {
    Split s;
    s.to.resize(size_t(from));
    s.share.resize(size_t(from));
    const double scale = double(from) / into;
    for (int i = 0; i < from; ++i) {
        int o = std::min(into - 1, int(std::floor(i / scale)));
        const double end = (o + 1) * scale; // where output o stops, in source units
        double share = end >= i + 1 ? 1.0 : end - i;
        if (share <= 1e-9) { // the boundary sits on i itself: all of it belongs to the next one
            o = std::min(into - 1, o + 1);
            share = 1.0;
        }
        s.to[size_t(i)] = o;
        s.share[size_t(i)] = float(o == into - 1 ? 1.0 : share);
    }
    return s;
}

inline __m128 load4(const uint8_t* p) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i bytes = _mm_cvtsi32_si128(*reinterpret_cast<const int*>(p));
    return _mm_cvtepi32_ps(_mm_unpacklo_epi16(_mm_unpacklo_epi8(bytes, zero), zero));
}

inline void store4(__m128 v, uint8_t* p) {
    const __m128i i32 = _mm_cvtps_epi32(v); // rounds to nearest
    const __m128i i16 = _mm_packs_epi32(i32, i32);
    *reinterpret_cast<int*>(p) = _mm_cvtsi128_si32(_mm_packus_epi16(i16, i16));
}

} // namespace

void shrink(const uint8_t* src, int sw, int sh, size_t srcStride, uint8_t* dst, int dw, int dh,
            size_t dstStride) {
    const Split xs = splitAxis(sw, dw), ys = splitAxis(sh, dh);
    const __m128 norm = _mm_set1_ps(float(double(dw) * dh / (double(sw) * sh)));
    // One filtered source row, and the output row being filled plus the one after it.
    const size_t width = static_cast<size_t>(dw);
    std::vector<__m128> row(width), current(width), next(width);
    int filling = 0;
    for (int y = 0; y < sh; ++y) {
        // Along the row the output index only ever steps by one (the factor is at least 1), so the
        // sums stay in registers: what the current output gets, and what spills into the next.
        const uint8_t* in = src + size_t(y) * srcStride;
        __m128 sum = _mm_setzero_ps(), spill = _mm_setzero_ps();
        int column = 0;
        for (int x = 0; x < sw; ++x, in += 4) {
            const int o = xs.to[size_t(x)];
            if (o != column) {
                row[size_t(column)] = sum;
                sum = spill;
                spill = _mm_setzero_ps();
                column = o;
            }
            const __m128 v = load4(in);
            const __m128 part = _mm_mul_ps(v, _mm_set1_ps(xs.share[size_t(x)]));
            sum = _mm_add_ps(sum, part);
            spill = _mm_add_ps(spill, _mm_sub_ps(v, part));
        }
        row[size_t(column)] = sum;
        const int o = ys.to[size_t(y)];
        while (filling < o) { // every source row of `filling` is in: write it out
            uint8_t* out = dst + size_t(filling) * dstStride;
            for (int x = 0; x < dw; ++x)
                store4(_mm_mul_ps(current[size_t(x)], norm), out + 4 * x);
            current.swap(next);
            std::fill(next.begin(), next.end(), _mm_setzero_ps());
            ++filling;
        }
        const float b = ys.share[size_t(y)];
        const __m128 bv = _mm_set1_ps(b);
        if (b < 1.0f) {
            for (size_t x = 0; x < width; ++x) {
                const __m128 part = _mm_mul_ps(row[x], bv);
                current[x] = _mm_add_ps(current[x], part);
                next[x] = _mm_add_ps(next[x], _mm_sub_ps(row[x], part));
            }
        } else {
            for (size_t x = 0; x < width; ++x)
                current[x] = _mm_add_ps(current[x], row[x]);
        }
    }
    for (; filling < dh; ++filling) {
        uint8_t* out = dst + size_t(filling) * dstStride;
        for (int x = 0; x < dw; ++x)
            store4(_mm_mul_ps(current[size_t(x)], norm), out + 4 * x);
        current.swap(next);
        std::fill(next.begin(), next.end(), _mm_setzero_ps());
    }
}

} // namespace cutlark::AreaResize
