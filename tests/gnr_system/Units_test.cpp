#include "gnr_system/Units.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cwctype>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Names = const wchar_t* (*)(unsigned);
using TypeNames = const wchar_t* (*)(unsigned, unsigned);
const Names kNameColumns[] = {Get_Unit_Name, Get_Unit_ShortName, Get_Unit_LongName};

std::wstring Cased(const std::wstring& s, bool upper) {
    std::wstring r = s;
    for (wchar_t& c : r) {
        if (c < 128) c = static_cast<wchar_t>(upper ? std::towupper(c) : std::towlower(c));
    }
    return r;
}

// Every unit a value of `type` may carry, composites included.
std::vector<unsigned> UnitsOfType(unsigned type) {
    std::vector<unsigned> units;
    if (type == KV_UNITTYPE_LENGTH_PER_TIME) {
        for (unsigned length = 0; length <= KV_UNIT_INCH; ++length)
            for (unsigned time = KV_UNIT_HOUR; time <= KV_UNIT_NS; ++time) units.push_back((length + 1) * 100 + time);
    } else {
        for (unsigned i = 0; i < Get_UnitType_NumUnits(type); ++i) units.push_back(Get_UnitType_Unit(type, i));
    }
    return units;
}

bool IsPixelUnit(unsigned type, unsigned unit) {
    return type == KV_UNITTYPE_LENGTH_PER_TIME ? unit / 100 == 1 : (type <= KV_UNITTYPE_VOLUME && unit == KV_UNIT_PIXELS);
}

TEST(Units, NameTableKeepsItsRowsAndFallsBackToUnknown) {
    Units_Initialize();  // the tables are constant; a call changes nothing
    const struct { unsigned unit; const wchar_t* names[3]; } rows[] = {
        {0, L"pixels", L"px", L"Pixels"},         {2, L"\u00B5m", L"\u00B5m", L"Micrometers"},
        {9, L"inch", L"in", L"Inches"},           {10, L"unknown", L"??", L"Unknown"},
        {13, L"grad", L"grad", L"grad"},          {15, L"min", L"m", L"Minutes"},
        {20, L"val", L"", L"Value"},              {22, L"celsius", L"\u221E" L"C", L"Degrees Celsius"},
        {26, L"\u00B5mol", L"\u00B5M", L"Micromoles"}, {28, L"mol", L"M", L"Moles"},
        {29, L"unknown", L"??", L"Unknown"},       {0xFFFFFFFFu, L"unknown", L"??", L"Unknown"},
        {14, L"hour", L"h", L"Hours"},            {24, L"fahrenheit", L"\u221E" L"F", L"Degrees Fahrenheit"},
    };
    for (const auto& r : rows)
        for (int i = 0; i < 3; ++i) EXPECT_STREQ(r.names[i], kNameColumns[i](r.unit)) << r.unit << " " << i;
}

TEST(Units, TypesListTheirUnitsAndDefaults) {
    const struct { unsigned type, count, first, defaultUnit; } types[] = {
        {0, 0, 10, 10}, {1, 10, 0, 2}, {2, 10, 0, 2}, {3, 10, 0, 2}, {4, 3, 11, 11}, {5, 1, 1, 1},
        {6, 6, 14, 16}, {7, 2, 20, 21}, {8, 3, 22, 22}, {9, 0, 10, 10}, {10, 4, 25, 25}, {11, 0, 0, 316},
        {12, 0, 0, 10}, {0xFFFFFFFFu, 0, 0, 10},
    };
    for (const auto& t : types) {
        EXPECT_EQ(t.count, Get_UnitType_NumUnits(t.type)) << t.type;
        EXPECT_EQ(t.first, Get_UnitType_Unit(t.type, 0)) << t.type;
        EXPECT_EQ(t.defaultUnit, Get_Unit_Default(t.type)) << t.type;
        // Beyond the type's units the answer is "unknown" (0 for type 11 and above).
        EXPECT_EQ(t.type >= 11 ? 0u : 10u, Get_UnitType_Unit(t.type, t.count + (t.count == 0))) << t.type;
        for (unsigned i = 0; i < t.count; ++i) {
            const unsigned unit = Get_UnitType_Unit(t.type, i);
            EXPECT_EQ(t.first + i, unit);
            if (t.type != 2 && t.type != 3 && t.type != 5) {
                EXPECT_EQ(t.type, Get_Unit_Type(unit)) << unit;
            }
        }
    }
    for (unsigned unit : {10u, 29u}) EXPECT_EQ(0u, Get_Unit_Type(unit));
    const std::pair<unsigned, unsigned> groups[] = {{3, 6}, {5, 2}, {6, 6}, {7, 6}, {8, 1}, {9, 1}, {15, 6}, {24, 1}, {25, 6}, {500, 6}};
    for (const auto& g : groups) EXPECT_EQ(g.second, GetUnitGroup(g.first)) << g.first;
}

TEST(Units, TypeNamesComposeAreaVolumeAndLengthPerTime) {
    const struct { TypeNames function; unsigned type, unit; const wchar_t* expected; } cases[] = {
        {Get_UnitType_ShortName, 11, 316, L"\u00B5m/s"},
        {Get_UnitType_LongName, 11, 316, L"Micrometers/Seconds"},
        {Get_UnitType_ShortName, 11, 715, L"m/m"},  // meters per minute
        {Get_UnitType_ShortName, 2, 2, L"\u00B5m\u00B2"},
        {Get_UnitType_LongName, 3, 3, L"Millimeters\u00B3"},
        {Get_UnitType_ShortName, 8, 22, L"\u221E" L"C"},
        {Get_UnitType_ShortName, 11, 5, L"?\?/dm"},  // no length part: "unknown"
        {Get_UnitType_LongName, 11, 0xFFFFFFFFu, L"Unknown/Unknown"},
    };
    for (const auto& c : cases) EXPECT_STREQ(c.expected, c.function(c.type, c.unit)) << c.type << " " << c.unit;
    // The longest composite still fits the 33-character buffer.
    EXPECT_STREQ(L"Centimeters/Milliseconds", Get_UnitType_LongName(11, 517));

    // Each thread has its own buffer: another thread's calls leave ours alone.
    const wchar_t* mine = Get_UnitType_ShortName(2, 3);
    std::thread([] { for (unsigned unit = 0; unit < 40; ++unit) Get_UnitType_ShortName(3, unit); }).join();
    EXPECT_STREQ(L"mm\u00B2", mine);
}

TEST(Units, LooksUpEveryNameInAnyCase) {
    for (unsigned unit = 0; unit < KV_UNIT_COUNT; ++unit) {
        for (Names column : kNameColumns) {
            const std::wstring name = column(unit);
            if (name.empty()) continue;
            for (const std::wstring& query : {name, Cased(name, true), Cased(name, false)}) {
                // Shared names resolve to one unit; that unit must carry the name.
                const unsigned found = Get_Unit_ID(query.c_str());
                bool carries = false;
                for (Names c : kNameColumns) carries |= Cased(c(found), false) == Cased(query, false);
                EXPECT_TRUE(carries) << unit;
                EXPECT_EQ(Get_Unit_Type(found), Get_UnitType_ID(query.c_str()));
            }
        }
    }
    const struct { const wchar_t* name; unsigned unit, type; } cases[] = {
        {L"m", 6, 1},        {L"M", 28, 10},     {L"MM", 3, 1},    {L"mM", 27, 10},  {L"Mm", 3, 1},
        {L"nM", 25, 10},     {L"NM", 1, 1},      {L"\u00B5M", 26, 10},              {L"\u00B5m", 2, 1},
        {L"??", 10, 0},      {L"UNKNOWN", 10, 0}, {L"", 10, 0},    {L"furlong", 10, 0}, {nullptr, 10, 0},
        {L"MM/H", 414, 11},  {L"pixels/Seconds", 116, 11},    {L"\u00B5m/mm", 10, 0}, {L"s/s", 10, 0}, {L"/", 10, 0},
        {L"s\u00B2", 10, 0}, {L"\u00B2", 10, 0},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.unit, Get_Unit_ID(c.name)) << (c.name ? c.name : L"(null)");
        EXPECT_EQ(c.type, Get_UnitType_ID(c.name)) << (c.name ? c.name : L"(null)");
    }
}

TEST(Units, TypeNamesLookUpToTheirTypeAndUnit) {
    for (unsigned type : {1u, 2u, 3u, 4u, 6u, 7u, 8u, 10u, 11u}) {
        for (unsigned unit : UnitsOfType(type)) {
            for (TypeNames function : {Get_UnitType_ShortName, Get_UnitType_LongName}) {
                const std::wstring name = function(type, unit);
                if (name.empty()) continue;
                const unsigned foundType = Get_UnitType_ID(name.c_str()), foundUnit = Get_Unit_ID(name.c_str());
                // Minutes share the short name "m" with meters, which win.
                if (type == 6 && unit == KV_UNIT_MIN && function == Get_UnitType_ShortName) {
                    EXPECT_EQ(KV_UNIT_M, foundUnit);
                    continue;
                }
                EXPECT_EQ(type, foundType) << unit;
                EXPECT_EQ(unit, foundUnit) << type;
            }
        }
    }
}

TEST(Units, ConvertsKnownValues) {
    const struct { unsigned type, from, to; double value, expected; } cases[] = {
        {6, KV_UNIT_HOUR, KV_UNIT_S, 1.0, 360.0},            {8, KV_UNIT_KELVIN, KV_UNIT_CELSIUS, 0.0, 273.15},
        {8, KV_UNIT_CELSIUS, KV_UNIT_KELVIN, 0.0, -273.15},  {8, KV_UNIT_CELSIUS, KV_UNIT_FAHRENHEIT, 100.0, 212.0},
        {1, KV_UNIT_INCH, KV_UNIT_MM, 1.0, 25.4},            {2, KV_UNIT_MM, KV_UNIT_UM, 1.0, 1e6},
        {3, KV_UNIT_CM, KV_UNIT_UM, 1.0, 1e12},              {4, KV_UNIT_DEG, KV_UNIT_RAD, 180.0, std::acos(-1.0)},
        {4, KV_UNIT_GRAD, KV_UNIT_RAD, 200.0, std::acos(-1.0)}, {7, KV_UNIT_PERCENT, KV_UNIT_VALUE, 50.0, 0.5},
        {10, KV_UNIT_MOL, KV_UNIT_NMOL, 1.0, 1e9},
        {11, 416, 315, 1.0, 60000.0},  // mm/s to µm/min
        {11, 116, 115, 1.0, 60.0},     // px/s to px/min: only the time part converts
        {11, 116, 315, 1.0, 60.0},     // px/s to µm/min: pixels leave the length part out
        // Units outside the type are refused: the value comes back.
        {1, KV_UNIT_MM, KV_UNIT_DEG, 7.0, 7.0}, {11, 316, KV_UNIT_MM, 7.0, 7.0}, {11, 316, 320, 7.0, 7.0},
        {4, 0xFFFFFFFFu, KV_UNIT_RAD, 7.0, 7.0}, {99, 3, 4, 7.0, 7.0},
    };
    for (const auto& c : cases) {
        EXPECT_NEAR(c.expected, Convert_Unit_To_Unit(c.type, c.from, c.to, c.value), 1e-9 * std::fabs(c.expected) + 1e-12)
            << c.type << ": " << c.from << " -> " << c.to;
    }
    const std::pair<unsigned, unsigned> noFactor[] = {{1, KV_UNIT_PIXELS}, {11, 115}, {4, KV_UNIT_MM}};
    for (const auto& tu : noFactor)
        EXPECT_TRUE(std::isnan(Get_Unit_MulFactor(tu.first, tu.second))) << tu.first << " " << tu.second;
    EXPECT_DOUBLE_EQ(1.0, Get_Unit_MulFactor(8, KV_UNIT_KELVIN));
    EXPECT_DOUBLE_EQ(1.0, Get_Unit_MulFactor(42, 3));
    EXPECT_DOUBLE_EQ(1000.0 / 60.0, Get_Unit_MulFactor(11, 415));
    EXPECT_DOUBLE_EQ(1.0, HowManyMicronsAmI(12345));
}

TEST(Units, EveryConvertiblePairRoundTrips) {
    for (unsigned type : {1u, 2u, 3u, 4u, 6u, 7u, 8u, 10u, 11u}) {
        const std::vector<unsigned> units = UnitsOfType(type);
        for (unsigned a : units) {
            for (unsigned b : units) {
                const double value = 12.5, there = Convert_Unit_To_Unit(type, a, b, value);
                ASSERT_NEAR(value, Convert_Unit_To_Unit(type, b, a, there), 1e-9 * value) << type << ": " << a << " <-> " << b;
                if (type != 11 && a != b && (IsPixelUnit(type, a) || IsPixelUnit(type, b))) {
                    ASSERT_EQ(value, there) << type << ": " << a << " -> " << b;
                }
            }
        }
    }
}

TEST(Units, AutoUnitsPickTheClosestLengthUnit) {
    const struct { unsigned unit; double value; unsigned expected; } cases[] = {
        {KV_UNIT_UM, 5.0, KV_UNIT_UM},     {KV_UNIT_UM, 0.002, KV_UNIT_NM},  {KV_UNIT_UM, 1500.0, KV_UNIT_MM},
        {KV_UNIT_UM, 50.0, KV_UNIT_UM},    {KV_UNIT_UM, 500.0, KV_UNIT_MM},  {KV_UNIT_DM, 2e5, KV_UNIT_DM},
        {KV_UNIT_UM, 2e7, KV_UNIT_M},      {KV_UNIT_UM, 1e12, KV_UNIT_KM},   {KV_UNIT_UM, 1e-9, KV_UNIT_NM},
        {KV_UNIT_INCH, 1.0, KV_UNIT_MIL},  {KV_UNIT_MIL, 1000.0, KV_UNIT_INCH},
        {KV_UNIT_UM, 0.0, KV_UNIT_UM},     {KV_UNIT_INCH, -3.0, KV_UNIT_INCH}, {KV_UNIT_MM, NAN, KV_UNIT_MM},
    };
    for (const auto& c : cases) {
        unsigned out = 77;
        Calc_Auto_Units(&out, c.unit, c.value);
        EXPECT_EQ(c.expected, out) << c.unit << " " << c.value;
    }
    const struct { double precision, value; unsigned expected; } precise[] = {
        {0.0, 1500.0, KV_UNIT_MM}, {0.0, 900.0, KV_UNIT_MM}, {3.0, 900.0, KV_UNIT_UM},
        {0.0, 3.0, KV_UNIT_UM},    {0.0, 0.0, KV_UNIT_UM},   {0.0, 5e9, KV_UNIT_KM},
    };
    for (const auto& c : precise) {
        unsigned out = 77;
        Calc_Auto_Units_Precision(&out, c.precision, c.value);
        EXPECT_EQ(c.expected, out) << c.precision << " " << c.value;
    }
    Calc_Auto_Units(nullptr, KV_UNIT_UM, 1.0);
    Calc_Auto_Units_Precision(nullptr, 0.0, 1.0);
}

}  // namespace
