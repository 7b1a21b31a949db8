#include "gnr_metaformats/OpticalFilters.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "gnr_metaformats/KvMetaIO.h"
#include "gnr_system/CKvSerializerXMLString.h"

namespace {

using Pt = SKvOFSpectrumPoint;

CKvOpticalFilterSpectrum Spectrum(std::vector<Pt> points, bool lines = false) {
    CKvOpticalFilterSpectrum s;
    for (const Pt& p : points) s.AddPoint(p);
    s.SetPoints(lines);
    return s;
}
Pt Curve(double w, double v) { return {Pt::eSptCurve, w, v}; }
Pt Rising(double w) { return {Pt::eSptRisingEdge, w, 1.0}; }
Pt Falling(double w) { return {Pt::eSptFallingEdge, w, 1.0}; }

CKvOpticalFilterSpectrum Triangle(double low, double top, double high) {
    return Spectrum({Curve(low, 0), Curve(top, 1), Curve(high, 0)});
}

CKvOpticalFilter Filter(const wchar_t* name, uint32_t placement, CKvOpticalFilterSpectrum ex,
                        CKvOpticalFilterSpectrum em) {
    CKvOpticalFilter f;
    f.SetName(name);
    CKvStringW user(L"user ");
    user += name;
    f.SetUserName(user);
    f.SetPlacement(placement);
    f.SetNature(CKvOpticalFilter::eOfnBandPass);
    f.SetColor(0x00FF00);
    f.GetExcitationSpectrum() = ex;
    f.GetEmissionSpectrum() = em;
    return f;
}

CKvOpticalFilterPath ThreeFilterPath() {
    CKvOpticalFilterPath path(Filter(L"ex", CKvOpticalFilter::eOfpExcitation, Triangle(460, 480, 500), {}),
                              Filter(L"mirror", CKvOpticalFilter::eOfpMirror, {}, {}),
                              Filter(L"em", CKvOpticalFilter::eOfpEmission, {}, Spectrum({Rising(510), Falling(560)})));
    path[1].GetMirrorSpectrum() = Spectrum({Rising(505)});
    path[1].SetSpectrumType(CKvOpticalFilter::eOfsMirror);
    path.SetDescription(L"GFP path");
    return path;
}

CKvFluorescentProbe SampleProbe() {
    CKvFluorescentProbe probe(L"GFP", 0x00FF00);
    probe.GetExcitationSpectrum() = Triangle(440, 488, 520);
    probe.GetEmissionSpectrum() = Spectrum({Curve(490, 0), Curve(509, 1), Curve(510, 1), Curve(600, 0.1)});
    return probe;
}

// Writes into a top-level level "root" and hands back a reader inside it.
template <typename Save>
CKvLiteVariantR WriteLite(Save save) {
    CKvLiteVariantW writer;
    EXPECT_EQ(KV_OK, writer.LevelBegin(L"root"));
    EXPECT_EQ(KV_OK, save(writer));
    CKvLiteVariantR reader;
    EXPECT_EQ(KV_OK, writer.Finalize(reader, 0));
    EXPECT_EQ(KV_OK, reader.LevelBegin(L"root"));
    return reader;
}

// The item names of a lite encoding in stored order, each level's children in braces.
std::wstring LiteNames(CKvLiteVariantR& reader) {
    CKvStringW trace;
    EXPECT_EQ(KV_OK, reader.Trace(trace));
    const std::wstring text = trace.GetString();
    std::wstring out;
    size_t depth = 0;
    for (size_t start = 0, end; start < text.size(); start = end + 1) {
        end = text.find(L'\n', start);
        const std::wstring head = text.substr(start, text.find(L" (", start) - start);
        const size_t level = std::min(head.find_first_not_of(L' '), head.size()) / 2;
        for (; depth > level; --depth) out += L'}';
        if (level > depth) out += L'{';
        else if (!out.empty()) out += L' ';
        depth = level;
        out += head.substr(2 * level);
    }
    return out + std::wstring(depth, L'}');
}

template <typename T>
void ExpectLoads(const CKvVariant& tree, const T& want) {
    T got;
    ASSERT_EQ(KV_OK, got.LoadFromVariant(tree));
    EXPECT_EQ(want, got);
}

template <typename T>
void ExpectXmlRoundTrip(const CKvVariant& tree, const T& want) {
    CKvStringW xml;
    ASSERT_EQ(KV_OK, CKvSerializerXMLString::DocumentToXML(xml, tree));
    CKvVariant read;
    ASSERT_EQ(KV_OK, CKvSerializerXMLString::VariantFromXML(read, xml));
    EXPECT_TRUE(tree.GetRunType() == read.GetRunType());
    ExpectLoads(read, want);
}

}  // namespace

TEST(OpticalFilterSpectrumEditing, ChecksIndexesAndFindsNearest) {
    CKvOpticalFilterSpectrum s = Spectrum({Curve(500, 1), Curve(600, 1)});
    EXPECT_EQ(KV_ERR_INVALID_ARG, s.InsertPoint(Curve(700, 0), 3));
    EXPECT_EQ(KV_OK, s.InsertPoint(Curve(550, 0.5), 1));
    EXPECT_EQ(nullptr, s.GetPoint(3));
    EXPECT_EQ(KV_ERR_INVALID_ARG, s.RemovePoint(3));
    uint32_t index = 99;
    ASSERT_TRUE(s.FindNearestPoint(525, index));  // 500 and 550 are equally near: the first
    EXPECT_EQ(0u, index);
    EXPECT_FALSE(CKvOpticalFilterSpectrum().FindNearestPoint(500, index));
    const double v[] = {0.5, 1.0};
    EXPECT_EQ(0u, CKvOpticalFilterSpectrum(nullptr, v, 2).GetCount());
    EXPECT_FALSE(CKvFluorescentProbe().IsValid());  // a probe needs a name
}

TEST(OpticalFilterSpectrumCurve, InterpolatesAndHoldsOpenEdges) {
    const struct {
        CKvOpticalFilterSpectrum spectrum;
        double wavelength;
        double value;
    } cases[] = {
        {Triangle(500, 550, 600), 525, 0.5},
        {Triangle(500, 550, 600), 499, 0.0},
        {Spectrum({Rising(500)}), 1000, 1.0},
        {Spectrum({Rising(500)}), 1101, 0.0},
        {Spectrum({Rising(500)}), 499, 0.0},
        {Spectrum({Falling(550)}), 300, 1.0},
        {Spectrum({Falling(550)}), 551, 0.0},
        {CKvOpticalFilterSpectrum(488, Pt::eSptPoint), 488, 1.0},
        {CKvOpticalFilterSpectrum(488, Pt::eSptPoint), 488.5, 0.0},
        {Spectrum({Curve(400, 1), Curve(500, 1)}, true), 450, 0.0},
    };
    for (const auto& c : cases) EXPECT_DOUBLE_EQ(c.value, c.spectrum.GetValueAt(c.wavelength)) << c.wavelength;
}

TEST(OpticalFilterSpectrumPeak, PeakWidthAndRanges) {
    const struct {
        const char* what;
        CKvOpticalFilterSpectrum spectrum;
        double peak, low, high;
    } cases[] = {
        {"triangle", Triangle(500, 550, 600), 550, 525, 575},
        {"half maximum interpolated", Spectrum({Curve(500, 0), Curve(520, 1), Curve(600, 0.2)}), 520, 510, 570},
        {"two-point band", Spectrum({Curve(500, 1), Curve(550, 1)}), 525, 500, 550},
        {"plateau", Spectrum({Curve(480, 0), Curve(500, 1), Curve(510, 1), Curve(520, 1), Curve(540, 0)}), 510, 490,
         530},
        {"long-pass open to the window", Spectrum({Curve(480, 0), Rising(500)}), 500, 490, kOFWavelengthMax},
        {"short-pass open to the window", Spectrum({Falling(550), Curve(570, 0)}), 550, kOFWavelengthMin, 560},
        {"line", CKvOpticalFilterSpectrum(561, Pt::eSptPoint), 561, 561, 561},
        {"lines: the strongest", Spectrum({Curve(405, 0.3), Curve(488, 0.9), Curve(561, 0.5)}, true), 488, 488, 488},
    };
    for (const auto& c : cases) {
        double peak = 0, fwhm = -1, low = 0, high = 0;
        ASSERT_TRUE(c.spectrum.GetPeakAndFwhm(peak, fwhm, &low, &high)) << c.what;
        EXPECT_DOUBLE_EQ(c.peak, peak) << c.what;
        EXPECT_DOUBLE_EQ(c.low, low) << c.what;
        EXPECT_DOUBLE_EQ(c.high, high) << c.what;
        EXPECT_DOUBLE_EQ(c.high - c.low, fwhm) << c.what;
        double rangeLow = 0, rangeHigh = 0;
        ASSERT_TRUE(c.spectrum.GetWavelenghtRange(rangeLow, rangeHigh));
        EXPECT_EQ(low, rangeLow);
        EXPECT_EQ(high, rangeHigh);
    }
    double peak, fwhm;
    EXPECT_FALSE(CKvOpticalFilterSpectrum().GetPeakAndFwhm(peak, fwhm));
    EXPECT_FALSE(Spectrum({Curve(500, 0), Curve(600, 0)}).GetPeakAndFwhm(peak, fwhm));

    double low, high, mean;
    ASSERT_TRUE(Spectrum({Rising(500)}).GetWavelenghtRangeExact(low, high));
    EXPECT_EQ(kOFWavelengthMax, high);
    const struct { CKvOpticalFilterSpectrum spectrum; double mean; } means[] = {
        {Spectrum({Curve(500, 0), Curve(500, 1), Curve(600, 1)}), 550},  // a vertical flank
        {Spectrum({Curve(400, 1), Curve(500, 3)}, true), 475},
    };
    for (const auto& m : means) {
        ASSERT_TRUE(m.spectrum.GetMeanWavelength(mean));
        EXPECT_DOUBLE_EQ(m.mean, mean);
    }
    EXPECT_FALSE(Spectrum({Curve(500, 0), Curve(600, 0)}).GetMeanWavelength(mean));
}

TEST(OpticalFilterSpectrumTabs, SamplesTheRangeWithBothEnds) {
    const CKvOpticalFilterSpectrum s = Spectrum({Curve(500, 0), Curve(502, 1), Curve(504.5, 0)});
    ASSERT_EQ(6u, s.GetTabbedPointCount());  // 500..504 by 1 nm and 504.5
    double w[8], v[8];
    ASSERT_EQ(6u, s.GetTabbedCurve(w, v, 8));
    EXPECT_DOUBLE_EQ(0.5, v[1]);
    EXPECT_EQ(504.5, w[5]);
    EXPECT_EQ(3u, s.GetTabbedCurve(w, v, 3));
    EXPECT_EQ(0u, s.GetTabbedCurve(nullptr, v, 3));
    EXPECT_EQ(0u, s.GetTabbedPointCountEx(500, 510, 0));
    EXPECT_EQ(0u, s.GetTabbedPointCountEx(510, 500, 1));
    EXPECT_EQ(0u, s.GetTabbedPointCountEx(0, 1e12, 1e-3));
    ASSERT_EQ(3u, s.GetTabbedCurveEx(500, 504, 2, w, v, 8));
    EXPECT_DOUBLE_EQ(1.0, v[1]);
    // A line between samples shows at the nearest one.
    ASSERT_EQ(2u, CKvOpticalFilterSpectrum(488.4, Pt::eSptPoint).GetTabbedCurveEx(488, 489, 1, w, v, 8));
    EXPECT_EQ(1.0, v[0]);
    EXPECT_EQ(0.0, v[1]);
    EXPECT_EQ(0u, CKvOpticalFilterSpectrum().GetTabbedPointCount());
}

TEST(OpticalFilterSpectrumColour, FollowsThePeakWavelength) {
    const struct {
        double wavelength;
        int dominant;  // byte of the strongest component: 0 red, 1 green, 2 blue
    } cases[] = {{450, 2}, {530, 1}, {650, 0}};
    for (const auto& c : cases) {
        for (bool srgb : {false, true}) {
            const CKvOpticalFilterSpectrum s = Triangle(c.wavelength - 10, c.wavelength, c.wavelength + 10);
            uint32_t colour = 0;
            ASSERT_TRUE(srgb ? s.GetsRGBColor(colour) : s.GetRGBColor(colour));
            int strongest = 0;
            for (int i = 1; i < 3; ++i) {
                if (((colour >> (8 * i)) & 0xFF) > ((colour >> (8 * strongest)) & 0xFF)) strongest = i;
            }
            EXPECT_EQ(c.dominant, strongest) << c.wavelength;
            EXPECT_EQ(0u, colour >> 24);
        }
    }
    uint32_t colour = 1;
    EXPECT_TRUE(CKvOpticalFilterSpectrum(900, Pt::eSptPoint).GetRGBColor(colour));
    EXPECT_EQ(0u, colour);
    EXPECT_FALSE(CKvOpticalFilterSpectrum().GetRGBColor(colour));
}

TEST(OpticalFilterSpectrumCombine, MultipliesCurvesAndSharesLines) {
    // Zeros outside the band go, the one next to each flank stays.
    CKvOpticalFilterSpectrum sloped;
    ASSERT_EQ(KV_OK, Spectrum({Curve(400, 0), Curve(480, 0), Rising(500)})
                         .Combine(Spectrum({Falling(550), Curve(570, 0), Curve(600, 0)}), sloped));
    EXPECT_EQ(Spectrum({Curve(480, 0), Curve(500, 1), Curve(550, 1), Curve(570, 0)}), sloped);

    CKvOpticalFilterSpectrum lines;
    const CKvOpticalFilterSpectrum laser = Spectrum({Curve(405, 1), Curve(488, 0.8), Curve(561, 1)}, true);
    ASSERT_EQ(KV_OK, laser.Combine(Spectrum({Curve(480, 0.5), Curve(561, 0.5)}, true), lines));
    EXPECT_EQ(Spectrum({{Pt::eSptPoint, 561, 0.5}}, true), lines);
    ASSERT_EQ(KV_OK, laser.Combine(Triangle(470, 490, 510), lines));
    EXPECT_EQ(Spectrum({{Pt::eSptPoint, 488, 0.8 * 0.9}}, true), lines);

    ASSERT_EQ(KV_OK, laser.Combine(CKvOpticalFilterSpectrum(), lines));
    EXPECT_EQ(0u, lines.GetCount());
}

TEST(FluorescentProbeExcitation, SelectsTheBestAbsorbedLine) {
    CKvFluorescentProbe probe = SampleProbe();
    EXPECT_DOUBLE_EQ(488, probe.GetExcitationWavelength());
    EXPECT_DOUBLE_EQ(509.5, probe.GetEmissionWavelength());
    const double lines[] = {405, 470, 561};
    EXPECT_EQ(KV_ERR_INVALID_ARG, probe.SelectExcitation(nullptr, 3));
    EXPECT_EQ(KV_ERR_NOT_FOUND, probe.SelectExcitation(lines + 2, 1));
    uint32_t selected = 99;
    ASSERT_EQ(KV_OK, probe.SelectExcitation(lines, 3, &selected));
    EXPECT_EQ(1u, selected);
    EXPECT_EQ(Spectrum({{Pt::eSptPoint, 470, 30.0 / 48.0}}, true), probe.GetExcitationSpectrum());
    probe.DeleteEmissionSpectrum();
    EXPECT_EQ(0.0, probe.GetEmissionWavelength());
}

TEST(OpticalFilterPathLight, CombinesFiltersAndDescribesEmission) {
    CKvOpticalFilterPath path = ThreeFilterPath();
    const double want[] = {470, 490, 480, 510, 560, 535};
    const double got[] = {path.GetLowExcitationWavelength(), path.GetHightExcitationWavelength(),
                          path.GetMeanExcitationWavelength(), path.GetLowEmissionWavelength(),
                          path.GetHightEmissionWavelength(), path.GetMeanEmissionWavelength()};
    for (int i = 0; i < 6; ++i) EXPECT_DOUBLE_EQ(want[i], got[i]) << i;
    // A second emission filter narrows the light; the excitation bit off hides a spectrum.
    path.AddFilter(Filter(L"em2", CKvOpticalFilter::eOfpEmission, Triangle(300, 301, 302), Spectrum({Rising(530)})));
    path[3].SetSpectrumType(CKvOpticalFilter::eOfsEmission);
    EXPECT_DOUBLE_EQ(530, path.GetLowEmissionWavelength());
    EXPECT_DOUBLE_EQ(470, path.GetLowExcitationWavelength());

    const struct {
        CKvOpticalFilterSpectrum emission;
        const wchar_t* text;
    } cases[] = {
        {CKvOpticalFilterSpectrum(520, Pt::eSptPoint), L"520.0"},
        {Spectrum({Rising(500.26), Falling(550)}), L"500.3 - 550.0"},
        {Triangle(500, 550, 600), L"525.0 - 575.0"},
    };
    for (const auto& c : cases) {
        path[3].GetEmissionSpectrum() = c.emission;
        CKvStringW text;
        ASSERT_TRUE(path.GetEmissionWavelengthDescription(text));
        EXPECT_STREQ(c.text, text.GetString());
    }
    CKvStringW text(L"stale");
    EXPECT_FALSE(CKvOpticalFilterPath(Filter(L"x", 1, Triangle(1, 2, 3), {})).GetEmissionWavelengthDescription(text));
    EXPECT_TRUE(text.IsEmpty());
    EXPECT_EQ(0.0, CKvOpticalFilterPath().GetMeanEmissionWavelength());
}

TEST(OpticalFiltersSerialization, RoundTripsThroughTreeXmlAndLiteVariant) {
    const CKvOpticalFilterPath path = ThreeFilterPath();
    const CKvFluorescentProbe probe = SampleProbe();

    CKvVariant pathTree, probeTree;
    pathTree.SetName(L"path");
    probeTree.SetName(L"probe");
    ASSERT_EQ(KV_OK, path.SaveToVariant(pathTree));
    ASSERT_EQ(KV_OK, probe.SaveToVariant(probeTree));
    EXPECT_EQ(3u, pathTree[L"m_pFilter"].GetCount());
    EXPECT_EQ(pathTree[L"m_pFilter"][0], pathTree[L"m_pFilter"][L"a0"]);
    EXPECT_STREQ("CKvListVariant", probeTree[L"m_EmissionSpectrum"][L"pPoint"].GetRunType().GetName().GetString());
    EXPECT_STREQ(L"Point3", probeTree[L"m_EmissionSpectrum"][L"pPoint"][3].GetName().GetString());

    ExpectLoads(pathTree, path);
    ExpectLoads(probeTree, probe);
    ExpectXmlRoundTrip(pathTree, path);
    ExpectXmlRoundTrip(probeTree, probe);

    CKvLiteVariantR reader = WriteLite([&](CKvLiteVariantW& w) {
        kv_result r = path.SaveToLiteVariant(w);
        KvMeta::CLvLevelWriter level(w, L"probe");
        return r != KV_OK ? r : probe.SaveToVariantNew(w);
    });
    CKvOpticalFilterPath fromLite;
    ASSERT_EQ(KV_OK, fromLite.LoadFromLiteVariant(reader));
    EXPECT_EQ(path, fromLite);
    {
        KvMeta::CLvLevelReader level(reader, L"probe");
        ASSERT_TRUE(level.IsOpen());
        CKvFluorescentProbe probeFromLite;
        ASSERT_EQ(KV_OK, probeFromLite.LoadFromVariantNew(reader));
        EXPECT_EQ(probe, probeFromLite);
    }

    // The tree written into a lite variant reads back as the same structure.
    CKvLiteVariantR treeReader = WriteLite([&](CKvLiteVariantW& w) { return w.Set(pathTree, L"path"); });
    CKvVariant treeBack;
    ASSERT_EQ(KV_OK, treeReader.Get(L"path", treeBack));
    ExpectLoads(treeBack, path);
}

TEST(OpticalFiltersSerialization, LiteKeysInTheirOrder) {
    CKvOpticalFilter filter;
    filter.GetEmissionSpectrum() = Spectrum({Curve(500, 1), Curve(510, 0)});
    CKvLiteVariantR reader = WriteLite([&](CKvLiteVariantW& w) {
        CKvOpticalFilterPath(filter).SaveToLiteVariant(w);
        KvMeta::CLvLevelWriter level(w, L"probe");
        return CKvFluorescentProbe().SaveToVariantNew(w);
    });
    EXPECT_EQ(L"root{m_sDescr m_uiCount m_pFilter{{m_sUserName m_sName m_ePlacement m_eNature m_eSpctType "
              L"m_uiColor m_ExcitationSpectrum{uiCount pPoint bPoints} m_EmissionSpectrum{uiCount "
              L"pPoint{Point0{eType dWavelength dTValue} Point1{eType dWavelength dTValue}} bPoints} "
              L"m_MirrorSpectrum{uiCount pPoint bPoints}}} probe{m_sName m_uiColor m_ExcitationSpectrum{uiCount "
              L"pPoint bPoints} m_EmissionSpectrum{uiCount pPoint bPoints}}}",
              LiteNames(reader));

    CKvOpticalFilter userOnly;
    userOnly.SetUserName(L"mine");
    CKvLiteVariantR names = WriteLite([&](CKvLiteVariantW& w) { return userOnly.SaveUserNameToLiteVariant(w); });
    EXPECT_EQ(L"root{m_sUserName}", LiteNames(names));
    CKvOpticalFilter loaded;
    EXPECT_TRUE(KV_OK == loaded.LoadUserNameFromLiteVariant(names) && userOnly == loaded);

    // An empty path writes no filter level in either form.
    CKvLiteVariantR empty = WriteLite([](CKvLiteVariantW& w) { return CKvOpticalFilterPath().SaveToLiteVariant(w); });
    EXPECT_EQ(L"root{m_sDescr m_uiCount}", LiteNames(empty));
    CKvVariant tree;
    ASSERT_EQ(KV_OK, CKvOpticalFilterPath().SaveToVariant(tree));
    EXPECT_EQ(2, tree.GetCount());
}

TEST(OpticalFiltersSerialization, WrongRunTypeLeavesTheObjectUnchanged) {
    CKvVariant pointTree;
    const Pt peakPoint{Pt::eSptPeak, 500, 0.5};
    ASSERT_EQ(KV_OK, peakPoint.SaveToVariant(pointTree));
    CKvOpticalFilterPath path = ThreeFilterPath();
    CKvFluorescentProbe probe = SampleProbe();
    CKvOpticalFilter filter = path[0];
    CKvOpticalFilterSpectrum spectrum = Triangle(1, 2, 3);
    testing::internal::CaptureStdout();
    for (kv_result r : {path.LoadFromVariant(pointTree), probe.LoadFromVariant(pointTree),
                        filter.LoadFromVariant(pointTree), spectrum.LoadFromVariant(pointTree)})
        EXPECT_EQ(KV_ERR_INVALID_ARG, r);
    Pt point;
    EXPECT_EQ(KV_ERR_INVALID_ARG, point.LoadFromVariant(CKvVariant(1.0, CKvStringW(L"x"))));
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos,
              out.find("Wrong variant runtype('RKvOFSpectrumPoint'), expected 'RKvOpticalFilterPath'."));
    EXPECT_NE(std::string::npos, out.find("expected 'RKvOFSpectrumPoint'."));
    EXPECT_TRUE(ThreeFilterPath() == path && SampleProbe() == probe && ThreeFilterPath()[0] == filter &&
                Triangle(1, 2, 3) == spectrum && Pt() == point);
}

TEST(OpticalFiltersSerialization, AbsurdCountsLoadWhatIsPresent) {
    const uint32_t absurd = 4000000000u;
    CKvVariant spectrumTree, pathTree;
    ASSERT_EQ(KV_OK, Triangle(500, 550, 600).SaveToVariant(spectrumTree));
    ASSERT_EQ(KV_OK, ThreeFilterPath().SaveToVariant(pathTree));
    spectrumTree[L"uiCount"] = absurd;
    pathTree[L"m_uiCount"] = absurd;
    CKvOpticalFilterSpectrum spectrum;
    CKvOpticalFilterPath path;
    ASSERT_EQ(KV_OK, spectrum.LoadFromVariant(spectrumTree));
    ASSERT_EQ(KV_OK, path.LoadFromVariant(pathTree));
    EXPECT_EQ(Triangle(500, 550, 600), spectrum);
    EXPECT_EQ(ThreeFilterPath(), path);
    spectrumTree[L"uiCount"] = 2u;  // a smaller count limits what is taken
    ASSERT_EQ(KV_OK, spectrum.LoadFromVariant(spectrumTree));
    EXPECT_EQ(2u, spectrum.GetCount());

    // Lite: the counts overwritten after the real content.
    CKvLiteVariantR reader = WriteLite([&](CKvLiteVariantW& w) {
        KvMeta::CLvLevelWriter s(w, L"spectrum");
        w.Set(absurd, L"uiCount");
        {
            KvMeta::CLvLevelWriter points(w, L"pPoint");
            for (uint32_t i = 0; i < 3; ++i) {
                KvMeta::CLvLevelWriter p(w, (L"Point" + std::to_wstring(i)).c_str());
                Pt{Pt::eSptCurve, 500.0 + i, 1.0}.SaveToVariantNew(w);
            }
        }
        s.Close();
        KvMeta::CLvLevelWriter pathLevel(w, L"path");
        w.Set(absurd, L"m_uiCount");
        KvMeta::CLvLevelWriter filters(w, L"m_pFilter");
        for (int i = 0; i < 3; ++i) {
            KvMeta::CLvLevelWriter f(w, nullptr);
            CKvOpticalFilter().SaveToLiteVariant(w);
        }
        return KV_OK;
    });
    {
        KvMeta::CLvLevelReader level(reader, L"spectrum");
        ASSERT_EQ(KV_OK, spectrum.LoadFromVariantNew(reader));
        EXPECT_EQ(3u, spectrum.GetCount());
        EXPECT_EQ(502.0, spectrum[2].dWavelength);
    }
    KvMeta::CLvLevelReader level(reader, L"path");
    ASSERT_EQ(KV_OK, path.LoadFromLiteVariant(reader));
    EXPECT_EQ(3u, path.GetCount());
}

TEST(OpticalFiltersSerialization, AMissingListKeepsTheElementsUnlessTheCountIsZero) {
    CKvVariant tree;
    ASSERT_EQ(KV_OK, CKvOpticalFilterPath().SaveToVariant(tree));  // no "m_pFilter" member
    for (uint32_t count : {5u, 0u}) {
        SCOPED_TRACE(count);
        tree[L"m_uiCount"] = count;
        CKvOpticalFilterPath path = ThreeFilterPath();
        ASSERT_EQ(KV_OK, path.LoadFromVariant(tree));
        EXPECT_EQ(count ? 3u : 0u, path.GetCount());

        CKvLiteVariantR reader = WriteLite([&](CKvLiteVariantW& w) {
            KvMeta::CLvLevelWriter s(w, L"spectrum");
            return w.Set(count, L"uiCount");
        });
        KvMeta::CLvLevelReader level(reader, L"spectrum");
        CKvOpticalFilterSpectrum spectrum = Triangle(500, 550, 600);
        ASSERT_EQ(KV_OK, spectrum.LoadFromVariantNew(reader));
        EXPECT_EQ(count ? 3u : 0u, spectrum.GetCount());
    }
}
