// SVG text and preview bitmaps. The documents are plain concatenations with one fixed form, so equal
// traces give equal bytes.
#include "vectorize/VectorizeEngine.h"

#include <QPainter>

#include <algorithm>
#include <charconv>
#include <cmath>

namespace cutlark::VectorizeEngine {

namespace {

// One decimal, a point as the mark, a whole value still showing its ".0" — independent of the locale.
void appendNumber(QString& out, double v) {
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof(buffer), v, std::chars_format::fixed, 1);
    out += QLatin1String(buffer, int(result.ptr - buffer));
}

QString integerSize(double v) {
    return QString::number(qint64(std::trunc(v)));
}

QString head(const QSizeF& size) {
    const QString W = integerSize(size.width()), H = integerSize(size.height());
    return QStringLiteral("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n") +
           QStringLiteral("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"") + W +
           QStringLiteral("\" height=\"") + H + QStringLiteral("\" viewBox=\"0 0 ") + W + QLatin1Char(' ') +
           H + QStringLiteral("\">\n");
}

QString hexColor(double r, double g, double b) {
    auto byte = [](double c) { return std::clamp(int(std::round(c * 255.0)), 0, 255); };
    return QString::asprintf("#%02X%02X%02X", byte(r), byte(g), byte(b));
}

// The fixed grey of previews; not the same grey as the SVG's #111111.
QColor previewGrey() {
    return QColor::fromRgbF(0.1f, 0.11f, 0.13f, 1.0f);
}

QImage transparentCanvas(const QSizeF& size) {
    const int w = int(std::trunc(size.width())), h = int(std::trunc(size.height()));
    if (w < 1 || h < 1) return QImage();
    QImage image(w, h, QImage::Format_ARGB32_Premultiplied);
    if (image.isNull()) return QImage();
    image.fill(Qt::transparent);
    return image;
}

} // namespace

QString pathD(const QList<Contour>& contours) {
    QString d;
    for (const Contour& c : contours) {
        if (c.isEmpty()) continue;
        for (qsizetype i = 0; i < c.size(); ++i) {
            d += i == 0 ? QLatin1Char('M') : QLatin1Char('L');
            appendNumber(d, c[i].x());
            d += QLatin1Char(' ');
            appendNumber(d, c[i].y());
        }
        d += QLatin1Char('Z');
    }
    return d;
}

namespace {

// Curve documents are written compactly, as potrace and other tracers write theirs: every point is
// first rounded to a tenth of a pixel on the absolute grid (so rounding never drifts along a
// contour), then written relative to the one before it, a whole number without ".0", a fraction
// without its leading zero, no blank where a sign or a second point already separates two numbers,
// and a command letter left out where the same command repeats.
class CompactPath {
public:
    QString text;

    void moveTo(QPointF p) {
        const Tenths q = tenths(p);
        if (text.isEmpty()) {
            command('M');
            number(q.x);
            number(q.y);
        } else {
            command('m');
            number(q.x - m_start.x);
            number(q.y - m_start.y);
        }
        m_start = m_current = q;
    }
    void lineTo(QPointF p) {
        command('l');
        relative(p);
    }
    void cubicTo(QPointF c1, QPointF c2, QPointF p) {
        command('c');
        const Tenths from = m_current;
        for (QPointF point : {c1, c2, p}) {
            const Tenths q = tenths(point);
            number(q.x - from.x);
            number(q.y - from.y);
            m_current = q;
        }
    }
    void close() {
        text += QLatin1Char('z');
        m_last = 'z';
        m_current = m_start;
    }

private:
    struct Tenths {
        qint64 x = 0, y = 0;
    };
    static Tenths tenths(QPointF p) {
        return {qint64(std::llround(p.x() * 10.0)), qint64(std::llround(p.y() * 10.0))};
    }
    void command(char c) {
        if (c != m_last) {
            text += QLatin1Char(c);
            m_last = c;
            m_fractional = false;
            m_numberJustWritten = false;
        }
    }
    void relative(QPointF p) {
        const Tenths q = tenths(p);
        number(q.x - m_current.x);
        number(q.y - m_current.y);
        m_current = q;
    }
    void number(qint64 t) {
        char buffer[32];
        char* out = buffer;
        const bool negative = t < 0;
        const quint64 magnitude = negative ? quint64(0) - quint64(t) : quint64(t);
        const quint64 whole = magnitude / 10, tenth = magnitude % 10;
        if (negative) *out++ = '-';
        if (whole != 0 || tenth == 0) out = std::to_chars(out, buffer + sizeof(buffer), whole).ptr;
        if (tenth != 0) {
            *out++ = '.';
            *out++ = char('0' + tenth);
        }
        // A blank only where the two numbers would otherwise read as one.
        const bool separated = negative || (buffer[0] == '.' && m_fractional);
        if (m_numberJustWritten && !separated) text += QLatin1Char(' ');
        text += QLatin1String(buffer, int(out - buffer));
        m_fractional = tenth != 0;
        m_numberJustWritten = true;
    }

    Tenths m_start, m_current;
    char m_last = 0;
    bool m_fractional = false;
    bool m_numberJustWritten = false;
};

} // namespace

QString pathD(const QList<CurvedContour>& curves) {
    CompactPath d;
    for (const CurvedContour& c : curves) {
        if (c.segments.isEmpty()) continue;
        d.moveTo(c.start);
        for (qsizetype i = 0; i < c.segments.size(); ++i) {
            const CurveSegment& s = c.segments[i];
            if (!s.cubic) {
                if (i + 1 == c.segments.size()) break; // z draws the line home
                d.lineTo(s.end);
            } else {
                d.cubicTo(s.c1, s.c2, s.end);
            }
        }
        d.close();
    }
    return d.text;
}

QString svg(const VectorTrace& trace, VectorizeStyle style, double strokeWidth) {
    QString attributes;
    if (style == VectorizeStyle::silhouette) {
        attributes = QStringLiteral("fill=\"#111111\" fill-rule=\"evenodd\"");
    } else {
        attributes = QStringLiteral("fill=\"none\" stroke=\"#111111\" stroke-width=\"");
        appendNumber(attributes, strokeWidth);
        attributes += QStringLiteral("\" stroke-linejoin=\"round\"");
    }
    return head(trace.size) + QStringLiteral("<path ") + attributes + QStringLiteral(" d=\"") +
           (trace.curves.isEmpty() ? pathD(trace.contours) : pathD(trace.curves)) +
           QStringLiteral("\"/>\n</svg>");
}

QString colorSVG(const VectorColorTrace& trace) {
    QString out = head(trace.size);
    for (const VectorColorLayer& layer : trace.layers) {
        const QString d = layer.curves.isEmpty() ? pathD(layer.contours) : pathD(layer.curves);
        if (d.isEmpty()) continue;
        out += QStringLiteral("<path fill=\"") + hexColor(layer.r, layer.g, layer.b) +
               QStringLiteral("\" fill-rule=\"evenodd\" d=\"") + d + QStringLiteral("\"/>\n");
    }
    return out + QStringLiteral("</svg>");
}

QPainterPath painterPath(const QList<Contour>& contours) {
    QPainterPath path;
    path.setFillRule(Qt::OddEvenFill);
    for (const Contour& c : contours) {
        if (c.isEmpty()) continue;
        path.moveTo(c.first());
        for (qsizetype i = 1; i < c.size(); ++i)
            path.lineTo(c[i]);
        path.closeSubpath();
    }
    return path;
}

QPainterPath painterPath(const QList<CurvedContour>& curves) {
    QPainterPath path;
    path.setFillRule(Qt::OddEvenFill);
    for (const CurvedContour& c : curves) {
        if (c.segments.isEmpty()) continue;
        path.moveTo(c.start);
        for (const CurveSegment& s : c.segments) {
            if (s.cubic)
                path.cubicTo(s.c1, s.c2, s.end);
            else
                path.lineTo(s.end);
        }
        path.closeSubpath();
    }
    return path;
}

QImage preview(const VectorTrace& trace, VectorizeStyle style, double strokeWidth) {
    QImage image = transparentCanvas(trace.size);
    if (image.isNull()) return image;
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing, true);
    const QPainterPath path =
        trace.curves.isEmpty() ? painterPath(trace.contours) : painterPath(trace.curves);
    if (style == VectorizeStyle::outline) {
        QPen pen(previewGrey());
        pen.setWidthF(strokeWidth);
        pen.setJoinStyle(Qt::RoundJoin);
        painter.strokePath(path, pen);
    } else {
        painter.fillPath(path, previewGrey());
    }
    painter.end();
    return image;
}

QImage colorPreview(const VectorColorTrace& trace) {
    QImage image = transparentCanvas(trace.size);
    if (image.isNull()) return image;
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing, true);
    for (const VectorColorLayer& layer : trace.layers)
        painter.fillPath(layer.curves.isEmpty() ? painterPath(layer.contours) : painterPath(layer.curves),
                         QColor::fromRgbF(float(layer.r), float(layer.g), float(layer.b), 1.0f));
    painter.end();
    return image;
}

} // namespace cutlark::VectorizeEngine
