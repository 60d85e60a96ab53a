#pragma once

// The bytes hostile files are built of: integers in either order, PNG chunks, ISO boxes, RIFF
// chunks, deflate.
#include <QByteArray>

#include <stdexcept>

#include <zlib.h>

namespace cutlark::test::hostile::bytes {

inline void be16(QByteArray& out, quint32 v) {
    out.append(char(v >> 8));
    out.append(char(v));
}

inline void be32(QByteArray& out, quint32 v) {
    be16(out, v >> 16);
    be16(out, v & 0xffff);
}

inline QByteArray zlibOf(const QByteArray& data) {
    uLongf size = compressBound(uLong(data.size()));
    QByteArray out(int(size), '\0');
    if (compress2(reinterpret_cast<Bytef*>(out.data()), &size,
                  reinterpret_cast<const Bytef*>(data.constData()), uLong(data.size()), 9) != Z_OK)
        throw std::runtime_error("zlib");
    out.resize(int(size));
    return out;
}

inline void chunk(QByteArray& png, const char* type, const QByteArray& data) {
    be32(png, quint32(data.size()));
    const QByteArray typed = QByteArray(type, 4) + data;
    png.append(typed);
    be32(png, quint32(crc32(0, reinterpret_cast<const Bytef*>(typed.constData()), uInt(typed.size()))));
}

inline QByteArray box(const char* type, const QByteArray& payload) {
    QByteArray out;
    be32(out, quint32(8 + payload.size()));
    out.append(type, 4);
    out.append(payload);
    return out;
}

inline QByteArray fullBox(const char* type, int version, quint32 flags, const QByteArray& payload) {
    QByteArray head;
    be32(head, quint32(version) << 24 | flags);
    return box(type, head + payload);
}

inline void le16(QByteArray& out, quint32 v) {
    out.append(char(v));
    out.append(char(v >> 8));
}
inline void le24(QByteArray& out, quint32 v) {
    le16(out, v & 0xffff);
    out.append(char(v >> 16));
}
inline void le32(QByteArray& out, quint32 v) {
    le16(out, v & 0xffff);
    le16(out, v >> 16);
}
inline QByteArray riffChunk(const char* fourcc, const QByteArray& data) {
    QByteArray out(fourcc, 4);
    le32(out, quint32(data.size()));
    out.append(data);
    if (data.size() & 1) out.append('\0');
    return out;
}

} // namespace cutlark::test::hostile::bytes
