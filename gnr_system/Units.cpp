#include "gnr_system/Units.h"

#include <cmath>
#include <cstddef>
#include <limits>
#include <string>
#include <string_view>

#include "gnr_system/CKvString.h"

namespace {

constexpr size_t kNameRow = 32;       // characters of one name row, terminator included
constexpr size_t kTypeNameBuffer = 33;
constexpr double kNoFactor = std::numeric_limits<double>::quiet_NaN();

enum NameColumn { kName = 0, kShortName = 1, kLongName = 2 };

// Names by unit number: name, short name, long name. The short name of minutes
// equals that of meters and the temperature short names start with U+221E;
// both are kept because stored labels use them.
const wchar_t kUnitNames[KV_UNIT_COUNT][3][kNameRow] = {
    {L"pixels", L"px", L"Pixels"},
    {L"nm", L"nm", L"Nanometers"},
    {L"\u00B5m", L"\u00B5m", L"Micrometers"},
    {L"mm", L"mm", L"Millimeters"},
    {L"cm", L"cm", L"Centimeters"},
    {L"dm", L"dm", L"Decimeters"},
    {L"m", L"m", L"Meters"},
    {L"km", L"km", L"Kilometers"},
    {L"mil", L"mil", L"Mils"},
    {L"inch", L"in", L"Inches"},
    {L"unknown", L"??", L"Unknown"},
    {L"deg", L"deg", L"Degrees"},
    {L"rad", L"rad", L"Radians"},
    {L"grad", L"grad", L"grad"},
    {L"hour", L"h", L"Hours"},
    {L"min", L"m", L"Minutes"},
    {L"s", L"s", L"Seconds"},
    {L"ms", L"ms", L"Milliseconds"},
    {L"\u00B5s", L"\u00B5s", L"Microseconds"},
    {L"ns", L"ns", L"Nanoseconds"},
    {L"val", L"", L"Value"},
    {L"percent", L"%", L"Percents"},
    {L"celsius", L"\u221E" L"C", L"Degrees Celsius"},
    {L"kelvin", L"K", L"Kelvins"},
    {L"fahrenheit", L"\u221E" L"F", L"Degrees Fahrenheit"},
    {L"nmol", L"nM", L"Nanomoles"},
    {L"\u00B5mol", L"\u00B5M", L"Micromoles"},
    {L"mmol", L"mM", L"Millimoles"},
    {L"mol", L"M", L"Moles"},
};

constexpr double kMicronsPerUnit[10] = {1.0, 0.001, 1.0, 1000.0, 10000.0, 100000.0, 1000000.0, 1000000000.0, 25.4, 25400.0};
constexpr double kRadiansPerUnit[3] = {0.017453292519943334, 1.0, 0.015707963267949};  // deg, rad, grad
// The hour is 360 s in stored conversions; kept so that converted values agree.
constexpr double kSecondsPerUnit[6] = {360.0, 60.0, 1.0, 0.001, 0.000001, 0.000000001};
constexpr double kValuePerUnit[2] = {1.0, 0.01};  // value, percent
constexpr double kNanomolesPerUnit[4] = {1.0, 1000.0, 1000000.0, 1000000000.0};

// Per unit type: number of units, first unit, default unit.
struct UnitTypeRow {
    unsigned count;
    unsigned first;
    unsigned defaultUnit;
};
constexpr unsigned kTypeCount = 12;
constexpr UnitTypeRow kUnitTypes[kTypeCount] = {
    {0, 10, 10}, {10, 0, 2}, {10, 0, 2}, {10, 0, 2}, {3, 11, 11}, {1, 1, 1},
    {6, 14, 16}, {2, 20, 21}, {3, 22, 22}, {0, 10, 10}, {4, 25, 25}, {0, 0, 316},
};

constexpr unsigned kCompositeStride = 100;
constexpr unsigned kFirstTime = KV_UNIT_HOUR;
constexpr unsigned kLastTime = KV_UNIT_NS;
constexpr unsigned kLastLength = KV_UNIT_INCH;

const wchar_t* NameOf(unsigned unit, NameColumn column) {
    return kUnitNames[unit < KV_UNIT_COUNT ? unit : KV_UNIT_UNKNOWN][column];
}

bool IsLength(unsigned unit) { return unit <= kLastLength; }
bool IsTime(unsigned unit) { return unit >= kFirstTime && unit <= kLastTime; }

// Splits a composite unit into its parts; false when either is out of range.
bool SplitComposite(unsigned unit, unsigned* length, unsigned* time) {
    const unsigned lengthPart = unit / kCompositeStride;
    if (lengthPart == 0) return false;
    *length = lengthPart - 1;
    *time = unit % kCompositeStride;
    return IsLength(*length) && IsTime(*time);
}

// Whether `unit` is one of the units a value of `type` may carry.
bool BelongsToType(unsigned type, unsigned unit) {
    if (type == KV_UNITTYPE_LENGTH_PER_TIME) {
        unsigned length = 0, time = 0;
        return SplitComposite(unit, &length, &time);
    }
    if (type >= kTypeCount) return true;
    const UnitTypeRow& row = kUnitTypes[type];
    if (row.count == 0) return unit == row.first;
    return unit >= row.first && unit < row.first + row.count;
}

// Lowest unit in [first, last] whose name in any column matches `name`:
// exact matches before matches without case, columns in order.
unsigned FindUnit(std::wstring_view name, unsigned first, unsigned last) {
    const CKvStringW text(name);
    for (bool exact : {true, false}) {
        for (NameColumn column : {kName, kShortName, kLongName}) {
            for (unsigned unit = first; unit <= last; ++unit) {
                const wchar_t* candidate = kUnitNames[unit][column];
                if (exact ? text.Compare(candidate) == 0 : text.CompareNoCase(candidate) == 0) return unit;
            }
        }
    }
    return KV_UNIT_UNKNOWN;
}

// Parses any name Get_Unit_ID accepts; answers the unit and sets `*type`.
unsigned ParseUnitName(const wchar_t* name, unsigned* type) {
    *type = KV_UNITTYPE_NONE;
    // The empty short name of "val" is a label, not something to look up.
    if (!name || !*name) return KV_UNIT_UNKNOWN;
    const std::wstring_view text(name);
    const unsigned plain = FindUnit(text, 0, KV_UNIT_COUNT - 1);
    if (plain != KV_UNIT_UNKNOWN) {
        *type = Get_Unit_Type(plain);
        return plain;
    }
    if (!text.empty() && (text.back() == L'\u00B2' || text.back() == L'\u00B3')) {
        const unsigned length = FindUnit(text.substr(0, text.size() - 1), 0, kLastLength);
        if (length == KV_UNIT_UNKNOWN) return KV_UNIT_UNKNOWN;
        *type = text.back() == L'\u00B2' ? KV_UNITTYPE_AREA : KV_UNITTYPE_VOLUME;
        return length;
    }
    const size_t slash = text.find(L'/');
    if (slash != std::wstring_view::npos) {
        const unsigned length = FindUnit(text.substr(0, slash), 0, kLastLength);
        const unsigned time = FindUnit(text.substr(slash + 1), kFirstTime, kLastTime);
        if (length == KV_UNIT_UNKNOWN || time == KV_UNIT_UNKNOWN) return KV_UNIT_UNKNOWN;
        *type = KV_UNITTYPE_LENGTH_PER_TIME;
        return (length + 1) * kCompositeStride + time;
    }
    return KV_UNIT_UNKNOWN;
}

// Composes the name of `unit` as a unit of `type` into `buffer`, cut to fit.
const wchar_t* TypeName(wchar_t* buffer, unsigned type, unsigned unit, NameColumn column) {
    std::wstring name;
    switch (type) {
    case KV_UNITTYPE_AREA: name = std::wstring(NameOf(unit, column)) + L'\u00B2'; break;
    case KV_UNITTYPE_VOLUME: name = std::wstring(NameOf(unit, column)) + L'\u00B3'; break;
    case KV_UNITTYPE_LENGTH_PER_TIME:
        // Parts out of range (unit below 100 included) read as "unknown".
        name = std::wstring(NameOf(unit / kCompositeStride - 1, column)) + L'/' + NameOf(unit % kCompositeStride, column);
        break;
    default: name = NameOf(unit, column); break;
    }
    const size_t n = name.size() < kTypeNameBuffer - 1 ? name.size() : kTypeNameBuffer - 1;
    name.copy(buffer, n);
    buffer[n] = L'\0';
    return buffer;
}

double LengthFactor(unsigned unit) { return unit >= 1 && unit <= kLastLength ? kMicronsPerUnit[unit] : kNoFactor; }

double TimeFactor(unsigned unit) { return IsTime(unit) ? kSecondsPerUnit[unit - kFirstTime] : kNoFactor; }

double ToCelsiusScale(unsigned unit, double value) {
    if (unit == KV_UNIT_KELVIN) return value + 273.15;
    if (unit == KV_UNIT_FAHRENHEIT) return (value - 32.0) * 0.5555555555555556;
    return value;
}

double FromCelsiusScale(unsigned unit, double value) {
    if (unit == KV_UNIT_KELVIN) return value - 273.15;
    if (unit == KV_UNIT_FAHRENHEIT) return value * 1.8 + 32.0;
    return value;
}

double ConvertComposite(unsigned from, unsigned to, double value) {
    unsigned lengthFrom = 0, timeFrom = 0, lengthTo = 0, timeTo = 0;
    SplitComposite(from, &lengthFrom, &timeFrom);
    SplitComposite(to, &lengthTo, &timeTo);
    const double lf = LengthFactor(lengthFrom), lt = LengthFactor(lengthTo);
    const double tf = TimeFactor(timeFrom), tt = TimeFactor(timeTo);
    if (std::isnan(tf) || std::isnan(tt)) return value;
    if (std::isnan(lf) || std::isnan(lt)) return value / tf * tt;
    return value * (lf / tf) / lt * tt;
}

struct AutoCandidate {
    unsigned unit;
    int exponent;  // decimal exponent of the unit in µm
};
constexpr AutoCandidate kMetricCandidates[] = {
    {KV_UNIT_NM, -3}, {KV_UNIT_UM, 0}, {KV_UNIT_MM, 3}, {KV_UNIT_CM, 4}, {KV_UNIT_DM, 5}, {KV_UNIT_M, 6}, {KV_UNIT_KM, 9},
};
constexpr AutoCandidate kImperialCandidates[] = {{KV_UNIT_MIL, 1}, {KV_UNIT_INCH, 4}};
constexpr double kNoScore = 1e7;

template <size_t N, typename Score>
void PickCandidate(const AutoCandidate (&candidates)[N], Score score, unsigned* out) {
    double best = kNoScore;
    for (const AutoCandidate& c : candidates) {
        const double s = score(c.exponent);
        if (s < best) {  // NaN never wins
            best = s;
            *out = c.unit;
        }
    }
}

}  // namespace

void Units_Initialize() {}

const wchar_t* Get_Unit_Name(unsigned unit) { return NameOf(unit, kName); }
const wchar_t* Get_Unit_ShortName(unsigned unit) { return NameOf(unit, kShortName); }
const wchar_t* Get_Unit_LongName(unsigned unit) { return NameOf(unit, kLongName); }

unsigned Get_Unit_Type(unsigned unit) {
    if (unit <= 9) return KV_UNITTYPE_LENGTH;
    if (unit >= 11 && unit <= 13) return KV_UNITTYPE_ANGLE;
    if (unit >= 14 && unit <= 19) return KV_UNITTYPE_TIME;
    if (unit >= 20 && unit <= 21) return KV_UNITTYPE_VALUE;
    if (unit >= 22 && unit <= 24) return KV_UNITTYPE_TEMPERATURE;
    if (unit >= 25 && unit <= 28) return KV_UNITTYPE_CONCENTRATION;
    return KV_UNITTYPE_NONE;
}

unsigned GetUnitGroup(unsigned unit) {
    constexpr unsigned kMetricOther = KV_UNITGROUP_METRIC | KV_UNITGROUP_OTHER;
    switch (unit) {
    case KV_UNIT_DM: return KV_UNITGROUP_METRIC;
    case KV_UNIT_MIL:
    case KV_UNIT_INCH:
    case KV_UNIT_FAHRENHEIT: return KV_UNITGROUP_IMPERIAL;
    default: return kMetricOther;
    }
}

unsigned Get_UnitType_NumUnits(unsigned type) { return type < kTypeCount ? kUnitTypes[type].count : 0; }

unsigned Get_UnitType_Unit(unsigned type, unsigned i) {
    if (type == KV_UNITTYPE_LENGTH_PER_TIME || type >= kTypeCount) return 0;
    const UnitTypeRow& row = kUnitTypes[type];
    if (i >= row.count) return KV_UNIT_UNKNOWN;
    return row.first + i;
}

unsigned Get_Unit_Default(unsigned type) { return type < kTypeCount ? kUnitTypes[type].defaultUnit : KV_UNIT_UNKNOWN; }

const wchar_t* Get_UnitType_LongName(unsigned type, unsigned unit) {
    thread_local wchar_t buffer[kTypeNameBuffer];
    return TypeName(buffer, type, unit, kLongName);
}

const wchar_t* Get_UnitType_ShortName(unsigned type, unsigned unit) {
    thread_local wchar_t buffer[kTypeNameBuffer];
    return TypeName(buffer, type, unit, kShortName);
}

double HowManyMicronsAmI(unsigned unit) { return unit <= kLastLength ? kMicronsPerUnit[unit] : 1.0; }

double Get_Unit_MulFactor(unsigned type, unsigned unit) {
    if (!BelongsToType(type, unit)) return kNoFactor;
    switch (type) {
    case KV_UNITTYPE_LENGTH: return LengthFactor(unit);
    case KV_UNITTYPE_AREA: return std::pow(LengthFactor(unit), 2);
    case KV_UNITTYPE_VOLUME: return std::pow(LengthFactor(unit), 3);
    case KV_UNITTYPE_ANGLE: return kRadiansPerUnit[unit - KV_UNIT_DEG];
    case KV_UNITTYPE_TIME: return TimeFactor(unit);
    case KV_UNITTYPE_VALUE: return kValuePerUnit[unit - KV_UNIT_VALUE];
    case KV_UNITTYPE_CONCENTRATION: return kNanomolesPerUnit[unit - KV_UNIT_NMOL];
    case KV_UNITTYPE_LENGTH_PER_TIME:
        return LengthFactor(unit / kCompositeStride - 1) / TimeFactor(unit % kCompositeStride);
    default: return 1.0;
    }
}

double Convert_Unit_To_Unit(unsigned type, unsigned from, unsigned to, double value) {
    if (from == to) return value;
    if (!BelongsToType(type, from) || !BelongsToType(type, to)) return value;
    if (type == KV_UNITTYPE_TEMPERATURE) return FromCelsiusScale(to, ToCelsiusScale(from, value));
    if (type == KV_UNITTYPE_LENGTH_PER_TIME) return ConvertComposite(from, to, value);
    const double factorFrom = Get_Unit_MulFactor(type, from), factorTo = Get_Unit_MulFactor(type, to);
    if (std::isnan(factorFrom) || std::isnan(factorTo)) return value;
    return value * factorFrom / factorTo;
}

void Calc_Auto_Units(unsigned* out, unsigned unit, double value) {
    if (!out) return;
    *out = unit;
    const unsigned group = GetUnitGroup(unit);
    if (group & KV_UNITGROUP_METRIC) {
        const double exponent = std::floor(std::log10(value));
        PickCandidate(kMetricCandidates, [&](int e) { return std::fabs(e - exponent); }, out);
    } else if (group & KV_UNITGROUP_IMPERIAL) {
        const double exponent = std::floor(std::log10(value * 25.4));
        PickCandidate(kImperialCandidates, [&](int e) { return std::fabs(e - exponent); }, out);
    }
}

void Calc_Auto_Units_Precision(unsigned* out, double precision, double value) {
    if (!out) return;
    *out = KV_UNIT_UM;
    const double exponent = std::log10(value);
    PickCandidate(kMetricCandidates, [&](int e) {
        const double d = e - exponent;
        return d >= 0 ? d + precision : -d;
    }, out);
}

unsigned Get_Unit_ID(const wchar_t* name) {
    unsigned type = 0;
    return ParseUnitName(name, &type);
}

unsigned Get_UnitType_ID(const wchar_t* name) {
    unsigned type = 0;
    ParseUnitName(name, &type);
    return type;
}
