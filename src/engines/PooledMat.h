#pragma once

#include "engines/BufferPool.h"

#include <opencv2/core.hpp>

namespace cutlark {

/// A cv::Mat whose store comes from the BufferPool, so working planes of a size used before cost no
/// fresh pages. OpenCV writes into it in place when it is given as an output of the same size and type.
class PooledMat {
public:
    PooledMat(int rows, int cols, int type) {
        const size_t bytes = size_t(rows) * size_t(cols) * CV_ELEM_SIZE(type);
        m_store = BufferPool::acquire(bytes > 0 ? bytes : 1);
        if (!m_store) throw cv::Exception(cv::Error::StsNoMem, "out of memory", __func__, __FILE__, __LINE__);
        m_mat = cv::Mat(rows, cols, type, m_store);
    }
    PooledMat(int rows, int cols, int type, const cv::Scalar& fill) : PooledMat(rows, cols, type) {
        m_mat = fill;
    }
    ~PooledMat() {
        m_mat.release();
        BufferPool::release(m_store);
    }
    PooledMat(const PooledMat&) = delete;
    PooledMat& operator=(const PooledMat&) = delete;

    cv::Mat& mat() { return m_mat; }
    const cv::Mat& mat() const { return m_mat; }

private:
    void* m_store = nullptr;
    cv::Mat m_mat;
};

} // namespace cutlark
