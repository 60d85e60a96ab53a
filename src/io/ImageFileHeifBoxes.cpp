// The boxes of a HEIF file that say what its items are, how they derive from each other and how
// big a derived image will be: read within bounds before libheif sees the file.
#include "io/ImageCodecs.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace cutlark::ImageCodecs {

namespace {

struct Bytes {
    const uchar* data;
    size_t size;
};

quint64 readBE(const uchar* p, int n) {
    quint64 v = 0;
    for (int i = 0; i < n; ++i)
        v = v << 8 | p[i];
    return v;
}

// One box of `within` at `at`: its type, where its payload starts and how long it is.
struct Box {
    char type[4];
    size_t payload;
    size_t length;
};

std::optional<Box> boxAt(Bytes within, size_t at) {
    if (at > within.size || within.size - at < 8) return std::nullopt;
    const uchar* p = within.data + at;
    quint64 size = readBE(p, 4);
    size_t header = 8;
    if (size == 1) {
        if (within.size - at < 16) return std::nullopt;
        size = readBE(p + 8, 8);
        header = 16;
    } else if (size == 0) {
        size = within.size - at;
    }
    if (size < header || size > within.size - at) return std::nullopt;
    Box box{};
    std::memcpy(box.type, p + 4, 4);
    box.payload = at + header;
    box.length = size_t(size) - header;
    return box;
}

bool is(const Box& box, const char* type) {
    return std::memcmp(box.type, type, 4) == 0;
}

struct Item {
    quint32 id = 0;
    char type[4] = {};
};

struct Location {
    quint32 id = 0;
    int method = 0;     // 0: in the file, 1: in 'idat'
    quint64 offset = 0; // of the first extent
    quint64 length = 0;
};

// The item types from 'iinf'. Only the id and type of each 'infe' (version 2 and 3) are read.
bool readItems(Bytes file, const Box& iinf, std::vector<Item>& items) {
    if (iinf.length < 6) return false;
    const uchar* p = file.data + iinf.payload;
    const int version = p[0];
    size_t at = iinf.payload + 4 + (version == 0 ? 2 : 4);
    const size_t end = iinf.payload + iinf.length;
    while (at < end) {
        const auto infe = boxAt(Bytes{file.data, end}, at);
        if (!infe) return false;
        if (is(*infe, "infe") && infe->length >= 4) {
            const uchar* q = file.data + infe->payload;
            const int v = q[0];
            const size_t need = v == 2 ? 4 + 2 + 2 + 4 : 4 + 4 + 2 + 4;
            if (v >= 2 && infe->length >= need) {
                Item item;
                item.id = quint32(readBE(q + 4, v == 2 ? 2 : 4));
                std::memcpy(item.type, q + 4 + (v == 2 ? 2 : 4) + 2, 4);
                items.push_back(item);
                if (items.size() > 100000) return false;
            }
        }
        at = infe->payload + infe->length;
    }
    return true;
}

// Where each item's data starts, from 'iloc' (versions 0, 1 and 2), first extent only.
bool readLocations(Bytes file, const Box& iloc, std::vector<Location>& out) {
    const uchar* p = file.data + iloc.payload;
    const uchar* end = p + iloc.length;
    if (iloc.length < 8) return false;
    const int version = p[0];
    if (version > 2) return false;
    const int offsetSize = p[4] >> 4, lengthSize = p[4] & 15, baseSize = p[5] >> 4;
    const int indexSize = version >= 1 ? (p[5] & 15) : 0;
    p += 6;
    const int countSize = version < 2 ? 2 : 4;
    if (end - p < countSize) return false;
    const quint64 count = readBE(p, countSize);
    p += countSize;
    for (quint64 i = 0; i < count; ++i) {
        Location loc;
        const int idSize = version < 2 ? 2 : 4;
        if (end - p < idSize) return false;
        loc.id = quint32(readBE(p, idSize));
        p += idSize;
        if (version >= 1) {
            if (end - p < 2) return false;
            loc.method = int(readBE(p, 2) & 15);
            p += 2;
        }
        if (end - p < 2 + baseSize + 2) return false;
        p += 2; // data reference index
        const quint64 base = readBE(p, baseSize);
        p += baseSize;
        const quint64 extents = readBE(p, 2);
        p += 2;
        for (quint64 e = 0; e < extents; ++e) {
            if (end - p < indexSize + offsetSize + lengthSize) return false;
            p += indexSize;
            const quint64 offset = readBE(p, offsetSize);
            p += offsetSize;
            const quint64 length = readBE(p, lengthSize);
            p += lengthSize;
            if (e == 0) {
                loc.offset = base + offset;
                loc.length = length;
            }
        }
        out.push_back(loc);
    }
    return true;
}

} // namespace

namespace {

// The boxes of the file's 'meta' that say what its items are and where their data lies.
struct MetaBoxes {
    std::vector<Item> items;
    std::vector<Location> locations;
    std::optional<Box> idat;
    std::optional<Box> iref;
};

std::optional<MetaBoxes> readMeta(const uchar* data, size_t size) {
    const Bytes file{data, size};
    std::optional<Box> meta;
    for (size_t at = 0; at < size;) {
        const auto box = boxAt(file, at);
        if (!box) break;
        if (is(*box, "meta")) {
            meta = box;
            break;
        }
        at = box->payload + box->length;
    }
    if (!meta || meta->length < 4) return std::nullopt;
    MetaBoxes out;
    bool haveItems = false, haveLocations = false;
    const Bytes inMeta{data, meta->payload + meta->length};
    for (size_t at = meta->payload + 4; at < inMeta.size;) {
        const auto box = boxAt(inMeta, at);
        if (!box) return std::nullopt;
        if (is(*box, "iinf"))
            haveItems = readItems(file, *box, out.items);
        else if (is(*box, "iloc"))
            haveLocations = readLocations(file, *box, out.locations);
        else if (is(*box, "idat"))
            out.idat = box;
        else if (is(*box, "iref"))
            out.iref = box;
        at = box->payload + box->length;
    }
    if (!haveItems || !haveLocations) return std::nullopt;
    return out;
}

bool isDerived(const Item& item) {
    return std::memcmp(item.type, "grid", 4) == 0 || std::memcmp(item.type, "iovl", 4) == 0 ||
           std::memcmp(item.type, "iden", 4) == 0;
}

} // namespace

bool heifDerivationIsSound(const uchar* data, size_t size) {
    const auto meta = readMeta(data, size);
    if (!meta || !meta->iref || meta->iref->length < 4) return true; // nothing derived to follow
    const auto derived = [&](quint64 id) {
        return std::any_of(meta->items.begin(), meta->items.end(),
                           [&](const Item& i) { return i.id == id && isDerived(i); });
    };
    // iref: version (ids of 16 bits, or 32 from version 1), then one box per reference type, each
    // from one item to a counted list of items.
    const int idSize = data[meta->iref->payload] == 0 ? 2 : 4;
    const Bytes inRef{data, meta->iref->payload + meta->iref->length};
    for (size_t at = meta->iref->payload + 4; at < inRef.size;) {
        const auto box = boxAt(inRef, at);
        if (!box) return false;
        if (is(*box, "dimg")) {
            const uchar* p = data + box->payload;
            if (box->length < size_t(idSize + 2)) return false;
            const quint64 from = readBE(p, idSize);
            const quint64 count = readBE(p + idSize, 2);
            if (box->length < idSize + 2 + count * idSize) return false;
            // A tile that is the image itself, or another derived image, makes libheif recurse
            // (a thread per tile at each level): only coded pictures may be tiles.
            for (quint64 i = 0; i < count; ++i) {
                const quint64 to = readBE(p + idSize + 2 + i * idSize, idSize);
                if (to == from || derived(to)) return false;
            }
        }
        at = box->payload + box->length;
    }
    return true;
}

std::optional<std::vector<QSize>> heifDerivedCanvases(const uchar* data, size_t size) {
    const auto meta = readMeta(data, size);
    if (!meta) return std::nullopt;
    const std::vector<Item>& items = meta->items;
    const std::vector<Location>& locations = meta->locations;
    const std::optional<Box>& idat = meta->idat;

    std::vector<QSize> canvases;
    for (const Item& item : items) {
        const bool grid = std::memcmp(item.type, "grid", 4) == 0;
        const bool overlay = std::memcmp(item.type, "iovl", 4) == 0;
        if (!grid && !overlay) continue;
        const auto loc = std::find_if(locations.begin(), locations.end(),
                                      [&](const Location& l) { return l.id == item.id; });
        if (loc == locations.end()) return std::nullopt;
        quint64 start = loc->offset;
        quint64 limit = size;
        if (loc->method == 1) {
            if (!idat) return std::nullopt;
            start += idat->payload;
            limit = idat->payload + idat->length;
        } else if (loc->method != 0) {
            return std::nullopt;
        }
        if (start > limit || limit - start < 8) return std::nullopt;
        const uchar* p = data + start;
        const size_t available =
            size_t(std::min<quint64>(limit - start, loc->length ? loc->length : limit - start));
        // grid: version, flags, rows − 1, columns − 1, width, height; iovl: version, flags, four
        // 16-bit fill values, width, height. Bit 0 of the flags makes the sizes 32 bits wide.
        const bool wide = p[1] & 1;
        const size_t sizesAt = grid ? 4 : 2 + 8;
        const size_t field = wide ? 4 : 2;
        if (available < sizesAt + 2 * field) return std::nullopt;
        const quint64 w = readBE(p + sizesAt, int(field));
        const quint64 h = readBE(p + sizesAt + field, int(field));
        canvases.push_back(QSize(int(std::min<quint64>(w, INT_MAX)), int(std::min<quint64>(h, INT_MAX))));
    }
    return canvases;
}

} // namespace cutlark::ImageCodecs
