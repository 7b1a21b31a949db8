// Physical units for labelling and converting values: 29 units identified by
// number, grouped into unit types (length, area, volume, angle, time, value,
// temperature, concentration, length per time), with names and factors.
#pragma once

// Unit numbers. A composite length-per-time unit (type 11) is the number
// (length unit + 1) * 100 + time unit, so 316 is micrometers per second.
constexpr unsigned KV_UNIT_PIXELS = 0;
constexpr unsigned KV_UNIT_NM = 1;
constexpr unsigned KV_UNIT_UM = 2;
constexpr unsigned KV_UNIT_MM = 3;
constexpr unsigned KV_UNIT_CM = 4;
constexpr unsigned KV_UNIT_DM = 5;
constexpr unsigned KV_UNIT_M = 6;
constexpr unsigned KV_UNIT_KM = 7;
constexpr unsigned KV_UNIT_MIL = 8;
constexpr unsigned KV_UNIT_INCH = 9;
constexpr unsigned KV_UNIT_UNKNOWN = 10;   // also the answer of failed look-ups
constexpr unsigned KV_UNIT_DEG = 11;
constexpr unsigned KV_UNIT_RAD = 12;
constexpr unsigned KV_UNIT_GRAD = 13;
constexpr unsigned KV_UNIT_HOUR = 14;
constexpr unsigned KV_UNIT_MIN = 15;
constexpr unsigned KV_UNIT_S = 16;
constexpr unsigned KV_UNIT_MS = 17;
constexpr unsigned KV_UNIT_US = 18;
constexpr unsigned KV_UNIT_NS = 19;
constexpr unsigned KV_UNIT_VALUE = 20;
constexpr unsigned KV_UNIT_PERCENT = 21;
constexpr unsigned KV_UNIT_CELSIUS = 22;
constexpr unsigned KV_UNIT_KELVIN = 23;
constexpr unsigned KV_UNIT_FAHRENHEIT = 24;
constexpr unsigned KV_UNIT_NMOL = 25;
constexpr unsigned KV_UNIT_UMOL = 26;
constexpr unsigned KV_UNIT_MMOL = 27;
constexpr unsigned KV_UNIT_MOL = 28;
constexpr unsigned KV_UNIT_COUNT = 29;

// Unit types.
constexpr unsigned KV_UNITTYPE_NONE = 0;
constexpr unsigned KV_UNITTYPE_LENGTH = 1;
constexpr unsigned KV_UNITTYPE_AREA = 2;          // length units, squared
constexpr unsigned KV_UNITTYPE_VOLUME = 3;        // length units, cubed
constexpr unsigned KV_UNITTYPE_ANGLE = 4;
constexpr unsigned KV_UNITTYPE_SINGLE = 5;        // the one unit 1
constexpr unsigned KV_UNITTYPE_TIME = 6;
constexpr unsigned KV_UNITTYPE_VALUE = 7;
constexpr unsigned KV_UNITTYPE_TEMPERATURE = 8;
constexpr unsigned KV_UNITTYPE_NONE2 = 9;
constexpr unsigned KV_UNITTYPE_CONCENTRATION = 10;
constexpr unsigned KV_UNITTYPE_LENGTH_PER_TIME = 11;

// Unit groups, a bit set (GetUnitGroup).
constexpr unsigned KV_UNITGROUP_IMPERIAL = 1;
constexpr unsigned KV_UNITGROUP_METRIC = 2;
constexpr unsigned KV_UNITGROUP_OTHER = 4;

// Kept for callers that initialise the tables at start-up. The tables are
// constant data, so every other function works before (and without) it, and
// calling it again does nothing.
void Units_Initialize();

// The name, short name and long name of a unit, each at most 31 characters.
// A unit of 29 or above yields the row of unit 10 ("unknown"). The strings are
// static and live as long as the process.
const wchar_t* Get_Unit_Name(unsigned unit);
const wchar_t* Get_Unit_ShortName(unsigned unit);
const wchar_t* Get_Unit_LongName(unsigned unit);

// The type of a plain unit (0 for 10 and for units of 29 or above).
unsigned Get_Unit_Type(unsigned unit);
// Bit set of KV_UNITGROUP_*: 6 for every unit outside 5..24.
unsigned GetUnitGroup(unsigned unit);

// Number of units of a type (0 for types above 11 and for the composite type 11).
unsigned Get_UnitType_NumUnits(unsigned type);
// The i-th unit of a type. 10 for types 0 and 9 and for an i beyond the
// type's units; 0 for type 11 and types above it.
unsigned Get_UnitType_Unit(unsigned type, unsigned i);
// The default unit of a type (316 for type 11, 10 for types above 11).
unsigned Get_Unit_Default(unsigned type);

// The name of `unit` as a unit of `type`: area and volume append "²" / "³" to
// the length unit's name, type 11 gives "length/time" of its two parts, every
// other type the unit's own name. The result lives in a buffer of 33
// characters per function and per thread (longer results are cut), valid
// until the same function is called again on the same thread.
const wchar_t* Get_UnitType_LongName(unsigned type, unsigned unit);
const wchar_t* Get_UnitType_ShortName(unsigned type, unsigned unit);

// Microns per length unit; 1.0 for units above 9 (pixels answer 1.0 too, but
// their factor is NaN, so they never convert).
double HowManyMicronsAmI(unsigned unit);

// Factor from `unit` to the base unit of `type` (µm, µm², µm³, rad, s, value,
// nmol; µm/s for type 11). NaN when the value cannot be converted: pixels, or a
// unit that does not belong to the type. Types 0, 5, 8, 9 and above 11: 1.0.
double Get_Unit_MulFactor(unsigned type, unsigned unit);

// Converts `value` from one unit of `type` to another. Temperatures go through
// an offset scale; length-per-time converts both parts (a pixel length part is
// left out). The value comes back unchanged when it cannot be converted:
// pixels, a unit that is not of the type, or a NaN factor.
double Convert_Unit_To_Unit(unsigned type, unsigned from, unsigned to, double value);

// Choose a length unit for displaying `value`, given in µm. Calc_Auto_Units
// searches the metric units when `unit` is metric and the imperial ones when it
// is imperial, picking the unit whose decimal exponent is closest to the
// value's; `*out` keeps `unit` when no unit fits (the value is not positive).
// Calc_Auto_Units_Precision searches the metric units, favouring a unit no
// larger than the value by `precision` decades; `*out` is µm when none fits.
// A null `out` is ignored.
void Calc_Auto_Units(unsigned* out, unsigned unit, double value);
void Calc_Auto_Units_Precision(unsigned* out, double precision, double value);

// Look-ups by name. Every one of the three names of a unit is accepted
// (name, short name, long name). An exact match wins over one that ignores the
// case of the letters A–Z; among equal matches names come before short names,
// short names before long names, and lower numbers first. So "m" is meters
// (minutes are "min" or "Minutes"), "M" is moles, "mm" millimeters and "mM"
// millimoles, "MM" millimeters again.
// The names Get_UnitType_*Name produce are accepted too: a length unit followed
// by "²" or "³" answers the length unit and type 2 or 3; "length/time" (each
// part any of its names) answers the composite number and type 11, the parts
// being looked up among length units and time units only ("m/m" is meters per
// minute).
// A null, empty or unknown name answers unit 10 and type 0. Get_UnitType_ID answers the
// type of the unit found (0 for unit 10).
unsigned Get_Unit_ID(const wchar_t* name);
unsigned Get_UnitType_ID(const wchar_t* name);
