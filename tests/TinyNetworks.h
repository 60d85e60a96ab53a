#pragma once

// Tiny ONNX graphs written in the tests, so that what a network answers is known exactly: just
// enough of protobuf's wire format to write a model.
#include <QByteArray>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace cutlark::test {

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

/// ValueInfoProto of a tensor named `name` of `elemType` (1: float); a dimension of −1 is left open.
inline Message tensorInfo(const std::string& name, const std::vector<int64_t>& dims, int elemType = 1) {
    Message shape;
    char open = 'a';
    for (int64_t d : dims) {
        if (d < 0)
            shape.message(1, Message().bytes(2, std::string(1, open++))); // dim { dim_param }
        else
            shape.message(1, Message().varint(1, uint64_t(d))); // dim { dim_value }
    }
    Message tensor;
    tensor.varint(1, uint64_t(elemType)).message(2, shape);
    return Message().bytes(1, name).message(2, Message().message(1, tensor));
}

/// A whole model of `graph` at opset 13.
inline QByteArray model(const Message& graph) {
    Message m;
    m.varint(1, 8).message(8, Message().bytes(1, "").varint(2, 13)).message(7, graph);
    return QByteArray::fromStdString(m.data());
}

/// "input" 1 × 3 × 2 × 2 in, its mean over the channels as "output" 1 × 1 × 2 × 2 out.
inline QByteArray channelMeanModel() {
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
        .message(11, tensorInfo("input", {1, 3, 2, 2}))
        .message(12, tensorInfo("output", {1, 1, 2, 2}));
    return model(graph);
}

/// The shapes of a one-channel network: what it declares in and out (−1 open).
struct ChannelNetworkShape {
    std::string input = "image";
    std::vector<int64_t> in{1, 3, -1, -1};
    std::string output = "mask";
    std::vector<int64_t> out{1, 1, -1, -1};
    int outputType = 1;
    bool passThrough = false; ///< answer with the input itself instead
};

/// A network that answers with one colour channel of its input (a 1 × 1 convolution weighing that
/// channel 1 and the others 0), so the mask it gives is known exactly.
inline QByteArray channelNetwork(int channel, const ChannelNetworkShape& s = {}) {
    float weights[3] = {0, 0, 0};
    weights[channel] = 1;
    std::string raw(sizeof weights, '\0');
    std::memcpy(raw.data(), weights, sizeof weights);
    Message w;
    for (int d : {1, 3, 1, 1})
        w.varint(1, uint64_t(d));
    w.varint(2, 1).bytes(8, "w").bytes(9, raw); // dims, FLOAT, name, raw_data
    Message conv;
    if (s.passThrough)
        conv.bytes(1, s.input).bytes(2, s.output).bytes(3, "same").bytes(4, "Identity");
    else
        conv.bytes(1, s.input).bytes(1, "w").bytes(2, s.output).bytes(3, "pick").bytes(4, "Conv");
    Message graph;
    graph.message(1, conv)
        .bytes(2, "channel")
        .message(5, w)
        .message(11, tensorInfo(s.input, s.in))
        .message(12, tensorInfo(s.output, s.out, s.outputType));
    return model(graph);
}

} // namespace cutlark::test
