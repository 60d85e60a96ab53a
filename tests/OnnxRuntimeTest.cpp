// The binding to ONNX Runtime against the real library the set-up fetches, on a tiny graph written
// here with the subject network's input and output names.
#include "TestSupport.h"

#include "engines/OnnxRuntime.h"

#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

using namespace cutlark;
using namespace cutlark::test;

namespace {

// Just enough of protobuf's wire format to write an ONNX model.
class Message {
public:
    Message& varint(int field, uint64_t value) {
        key(field, 0);
        raw(value);
        return *this;
    }
    Message& bytes(int field, const std::string& value) {
        key(field, 2);
        raw(value.size());
        m_out += value;
        return *this;
    }
    Message& message(int field, const Message& inner) { return bytes(field, inner.m_out); }
    const std::string& data() const { return m_out; }

private:
    void key(int field, int wireType) { raw(uint64_t(field) << 3 | uint64_t(wireType)); }
    void raw(uint64_t v) {
        do {
            const uint8_t b = v & 0x7f;
            v >>= 7;
            m_out += char(v ? (b | 0x80) : b);
        } while (v);
    }
    std::string m_out;
};

// ValueInfoProto of a float tensor named `name` with fixed dimensions.
Message floatTensor(const std::string& name, std::initializer_list<int64_t> dims) {
    Message shape;
    for (int64_t d : dims)
        shape.message(1, Message().varint(1, uint64_t(d))); // dim { dim_value }
    Message tensor;
    tensor.varint(1, 1).message(2, shape); // elem_type FLOAT, shape
    return Message().bytes(1, name).message(2, Message().message(1, tensor));
}

// A graph like the network's contract: "input" 1 × 3 × 2 × 2 in, its mean over the channels as
// "output" 1 × 1 × 2 × 2 out (ReduceMean, opset 13, axes as an attribute).
QByteArray channelMeanModel() {
    Message axes;
    axes.bytes(1, "axes").varint(20, 7).varint(8, 1); // name, type INTS, ints: [1]
    Message keep;
    keep.bytes(1, "keepdims").varint(20, 2).varint(3, 1); // name, type INT, i: 1
    Message node;
    node.bytes(1, "input")
        .bytes(2, "output")
        .bytes(3, "mean")
        .bytes(4, "ReduceMean")
        .message(5, axes)
        .message(5, keep);
    Message graph;
    graph.message(1, node)
        .bytes(2, "tiny")
        .message(11, floatTensor("input", {1, 3, 2, 2}))
        .message(12, floatTensor("output", {1, 1, 2, 2}));
    Message model;
    model.varint(1, 8).message(8, Message().bytes(1, "").varint(2, 13)).message(7, graph);
    return QByteArray::fromStdString(model.data());
}

} // namespace

TEST(OnnxRuntime, LoadsTheRealLibraryAndRunsATinyGraph) {
    // What isn't ONNX Runtime is refused with a reason, and doesn't stop the real one loading next.
    const QString notOrt = QStringLiteral("/lib/x86_64-linux-gnu/libz.so.1");
    if (QFileInfo::exists(notOrt)) {
        OnnxRuntime::setLibraryPath(notOrt);
        QString why;
        EXPECT_FALSE(OnnxRuntime::version(&why));
        EXPECT_TRUE(why.contains(QStringLiteral("is not ONNX Runtime"))) << why.toStdString();
    }
    OnnxRuntime::setLibraryPath(QStringLiteral("/nonexistent/libonnxruntime.so.1"));
    QString why;
    EXPECT_FALSE(OnnxRuntime::version(&why));
    EXPECT_FALSE(why.isEmpty());

    OnnxRuntime::setLibraryPath(QString());
    ASSERT_FALSE(OnnxRuntime::libraryPath().isEmpty())
        << "the set-up puts libonnxruntime.so.1 into the cache folder";
    const auto version = OnnxRuntime::version(&why);
    ASSERT_TRUE(version) << why.toStdString();
    EXPECT_EQ(*version, QStringLiteral("1.30.0"));

    QTemporaryDir dir;
    const QString modelPath = dir.filePath(QStringLiteral("tiny.onnx"));
    ASSERT_TRUE(writeBytes(modelPath, channelMeanModel()));
    auto session = OnnxRuntime::Session::open(modelPath, 2, &why);
    ASSERT_TRUE(session) << why.toStdString();

    // Channel planes 1..4, 10..40 and 100..400: the mean of each position is 37, 74, 111, 148.
    OnnxRuntime::Session::Tensor input{{1, 3, 2, 2}, {1, 2, 3, 4, 10, 20, 30, 40, 100, 200, 300, 400}};
    const auto out = session->run("input", input, "output", &why);
    ASSERT_TRUE(out) << why.toStdString();
    EXPECT_EQ(out->shape, (std::vector<int64_t>{1, 1, 2, 2}));
    EXPECT_EQ(out->values, (std::vector<float>{37, 74, 111, 148}));

    // The runtime's refusals come back as messages, and the session stays usable.
    EXPECT_FALSE(session->run("image", input, "output", &why));
    EXPECT_TRUE(why.contains(QStringLiteral("image"))) << why.toStdString();
    EXPECT_FALSE(session->run("input", input, "mask", &why));
    EXPECT_FALSE(why.isEmpty());
    OnnxRuntime::Session::Tensor wrongShape{{1, 3, 2, 1}, {1, 2, 3, 4, 5, 6}};
    EXPECT_FALSE(session->run("input", wrongShape, "output", &why));
    OnnxRuntime::Session::Tensor short_{{1, 3, 2, 2}, {1, 2, 3}};
    EXPECT_FALSE(session->run("input", short_, "output", &why)) << "values that don't fill the shape";
    EXPECT_TRUE(session->run("input", input, "output"));

    // A file that isn't a model is refused when the session is made.
    const QString junk = dir.filePath(QStringLiteral("junk.onnx"));
    ASSERT_TRUE(writeBytes(junk, QByteArray("not a model")));
    EXPECT_FALSE(OnnxRuntime::Session::open(junk, 1, &why));
    EXPECT_FALSE(why.isEmpty());
}
