#include "model/Settings.h"

#include <QJsonObject>

#include <QJsonObject>
#include <QSet>

#include <gtest/gtest.h>

using namespace cutlark;

TEST(Settings, TheTableHoldsTogether) {
    // What the table says of each row is what the rest of the program relies on: a default inside
    // its range, a switch that is a setting of its own and a boolean, a name said once, and the
    // defaults surviving the trip through a preset's JSON.
    const Settings defaults;
    const QJsonObject json = defaults.toJson();
    QSet<QString> seen;
    for (const SettingInfo& row : Settings::table()) {
        const QString name = QLatin1String(row.name);
        EXPECT_FALSE(seen.contains(name)) << row.name;
        seen.insert(name);
        // Turns are any whole number, taken modulo 4; every other number is held to its range.
        if (row.isNumber() && name != QLatin1String("quarterTurns")) {
            Settings scratch;
            const double value = json.value(name).toDouble();
            EXPECT_GE(value, row.minimum) << row.name;
            EXPECT_LE(value, row.maximum) << row.name;
            EXPECT_TRUE(Settings::parseInto(scratch, name, QString::number(row.maximum + 1)))
                << row.name << ": past its range is refused";
        }
        if (*row.switchName) {
            const SettingInfo* switchRow = Settings::info(QLatin1String(row.switchName));
            ASSERT_NE(switchRow, nullptr) << row.name;
            EXPECT_STREQ(switchRow->type, "bool") << row.name;
            EXPECT_EQ(defaults.offSwitch(name), QLatin1String(row.switchName))
                << row.name << ": every switch is off by default";
        }
    }
    EXPECT_EQ(seen.size(), Settings::names().size());
    Settings back;
    back.backgroundColor = Qt::red; // something to be written over
    ASSERT_FALSE(Settings::parseJsonInto(back, json));
    EXPECT_EQ(back.toJson(), json) << "a preset of the defaults reads back as the defaults";
}

TEST(Settings, ParsesEveryKindOfValue) {
    Settings s;
    EXPECT_FALSE(Settings::parseInto(s, QStringLiteral("trimEnabled"), QStringLiteral("true")));
    EXPECT_FALSE(Settings::parseInto(s, QStringLiteral("threshold"), QStringLiteral("12.5")));
    EXPECT_FALSE(Settings::parseInto(s, QStringLiteral("quarterTurns"), QStringLiteral("-1")));
    EXPECT_FALSE(Settings::parseInto(s, QStringLiteral("bgRemovalMode"), QStringLiteral("subject")));
    EXPECT_FALSE(Settings::parseInto(s, QStringLiteral("backgroundKind"), QStringLiteral("gradient")));
    EXPECT_FALSE(Settings::parseInto(s, QStringLiteral("vectorizeStyle"), QStringLiteral("outline")));
    EXPECT_FALSE(Settings::parseInto(s, QStringLiteral("backgroundColor"), QStringLiteral("#FF000080")));
    EXPECT_FALSE(Settings::parseInto(s, QStringLiteral("gradientEnd"), QStringLiteral("#00ff00")));
    EXPECT_FALSE(
        Settings::parseInto(s, QStringLiteral("manualCropRect"), QStringLiteral("0.1, 0.2,0.5,0.25")));
    EXPECT_TRUE(s.trimEnabled);
    EXPECT_EQ(s.threshold, 12.5);
    EXPECT_EQ(s.quarterTurns, 3) << "turns are kept modulo 4";
    EXPECT_EQ(s.bgRemovalMode, BGRemovalMode::subject);
    EXPECT_EQ(s.backgroundKind, BackgroundKind::gradient);
    EXPECT_EQ(s.vectorizeStyle, VectorizeStyle::outline);
    EXPECT_EQ(s.backgroundColor, QColor(255, 0, 0, 128));
    EXPECT_EQ(s.gradientEnd, QColor(0, 255, 0));
    EXPECT_EQ(s.manualCropRect, QRectF(0.1, 0.2, 0.5, 0.25));
}

TEST(Settings, RefusesWhatDoesNotParseAndKeepsTheOldValue) {
    Settings s;
    const auto unknown = Settings::parseInto(s, QStringLiteral("nope"), QStringLiteral("1"));
    ASSERT_TRUE(unknown);
    EXPECT_TRUE(unknown->contains(QStringLiteral("nope")));
    for (const auto& [name, value] : std::initializer_list<std::pair<const char*, const char*>>{
             {"trimEnabled", "maybe"},
             {"threshold", "ten"},
             {"bgRemovalMode", "magic"},
             {"backgroundColor", "#12345"},
             {"backgroundColor", "#GG0000"},
             {"manualCropRect", "1,2,3"},
             {"manualCropRect", "1,2,3,inf"},
             {"backgroundImage", "x"},
             {"backgroundImageURL", "/definitely/not/here.png"}}) {
        EXPECT_TRUE(Settings::parseInto(s, QLatin1String(name), QLatin1String(value)))
            << name << "=" << value;
    }
    EXPECT_EQ(s, Settings());
}

TEST(Settings, JsonRoundTripsThroughThePresetReader) {
    Settings changed;
    changed.trimEnabled = true;
    changed.padTop = 7;
    changed.gradientStart = QColor(1, 2, 3, 4);
    changed.vectorizeStyle = VectorizeStyle::outline;
    changed.manualCropRect = QRectF(0.25, 0, 0.5, 1);
    changed.vectorCurves = true;
    const QJsonObject json = changed.toJson();
    EXPECT_EQ(json.size(), 43);
    EXPECT_TRUE(json.value(QStringLiteral("vectorCurves")).toBool());
    EXPECT_EQ(json.value(QStringLiteral("gradientStart")).toString(), QStringLiteral("#01020304"));

    Settings back;
    EXPECT_FALSE(Settings::parseJsonInto(back, json));
    // Colours travel as 8-bit hex, so compare what a second writing says.
    EXPECT_EQ(back.toJson(), json);
    EXPECT_TRUE(back.trimEnabled);
    EXPECT_EQ(back.padTop, 7);
    EXPECT_EQ(back.gradientStart, QColor(1, 2, 3, 4));
    EXPECT_EQ(back.manualCropRect, QRectF(0.25, 0, 0.5, 1));

    QJsonObject bad{{QStringLiteral("padTopp"), 3}};
    EXPECT_TRUE(Settings::parseJsonInto(back, bad));
}

TEST(Settings, NumbersOutsideTheWindowsRangeAreRefused) {
    Settings s;
    // The outline the window allows is 0 to 40 pixels; 500 would cost half a minute on a small image.
    EXPECT_EQ(Settings::parseInto(s, QStringLiteral("strokeWidth"), QStringLiteral("500")),
              QStringLiteral("strokeWidth = 500 is outside 0 to 40 px"));
    EXPECT_EQ(s.strokeWidth, 14) << "a refused value leaves the field alone";
    EXPECT_FALSE(Settings::parseInto(s, QStringLiteral("strokeWidth"), QStringLiteral("40")));
    EXPECT_EQ(s.strokeWidth, 40);
    EXPECT_TRUE(Settings::parseInto(s, QStringLiteral("padAmount"), QStringLiteral("1e999")));
    for (const char* bad : {"nan", "inf", "-inf"})
        EXPECT_EQ(Settings::parseInto(s, QStringLiteral("padAmount"), QString::fromLatin1(bad)),
                  QStringLiteral("padAmount must be a finite number"))
            << bad;
    EXPECT_TRUE(Settings::parseInto(s, QStringLiteral("padTop"), QStringLiteral("-1")));
    EXPECT_TRUE(Settings::parseInto(s, QStringLiteral("gradientAngle"), QStringLiteral("360.5")));
    EXPECT_TRUE(Settings::parseInto(s, QStringLiteral("resizeWidth"), QStringLiteral("0")));
    EXPECT_TRUE(Settings::parseInto(s, QStringLiteral("vectorDenoise"), QStringLiteral("4")));
    // Presets go through the same gate.
    EXPECT_EQ(Settings::parseJsonInto(s, QJsonObject{{QStringLiteral("keyThreshold"), 100.5}}),
              QStringLiteral("keyThreshold = 100.5 is outside 0 to 100 %"));
    // Turns are any whole number, taken modulo 4.
    EXPECT_FALSE(Settings::parseInto(s, QStringLiteral("quarterTurns"), QStringLiteral("-7")));
    EXPECT_EQ(s.quarterTurns, 1);

    // Every number of the table has a range and a unit or meaning; nothing else has a range.
    int numbers = 0;
    for (const SettingInfo& row : Settings::table()) {
        EXPECT_FALSE(QString::fromUtf8(row.meaning).isEmpty()) << row.name;
        const bool number = QByteArray(row.type) == "number";
        EXPECT_EQ(row.isNumber(), number || QByteArray(row.type) == "integer") << row.name;
        if (number) {
            ++numbers;
            EXPECT_LT(row.minimum, row.maximum) << row.name;
            Settings probe;
            EXPECT_FALSE(
                Settings::parseInto(probe, QString::fromLatin1(row.name), QString::number(row.maximum)))
                << row.name;
            EXPECT_TRUE(
                Settings::parseInto(probe, QString::fromLatin1(row.name), QString::number(row.maximum + 1)))
                << row.name;
        }
    }
    EXPECT_EQ(numbers, 16);
    EXPECT_EQ(Settings::info(QStringLiteral("vectorStrokeWidth"))->minimum, 0.5);
    EXPECT_EQ(Settings::info(QStringLiteral("nope")), nullptr);
}
