#include "gnr_system/CKvSerializerXMLString.h"

#include <expat.h>

#include <charconv>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "gnr_system/KvTrace.h"

static_assert(std::is_same<XML_Char, char>::value, "the element handlers expect UTF-8 from expat");

namespace {

// Errors the element handlers record; each makes the parse answer -9.
constexpr kv_result kXmlErrorWrongRoot = -100;     // first element is not "variant"
constexpr kv_result kXmlErrorWrongVersion = -101;  // "variant" without version "1.0"
constexpr kv_result kXmlErrorTooDeep = -102;       // nesting beyond kXmlMaxNodeDepth
constexpr kv_result kXmlErrorDoctype = -103;       // documents carry no DTD (and so no entities)

const char kWideDeclaration[] = "<?xml version=\"1.0\" encoding=\"UTF-16\"?>";
const char kUtf8Declaration[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";
const char kRootOpen[] = "<variant version=\"1.0\">";
const char kRootClose[] = "</variant>";
const char kRootName[] = "variant";
const char kRootVersion[] = "1.0";
const char kAttrVersion[] = "version";
const char kAttrRunType[] = "runtype";
const char kAttrValue[] = "value";

// Control characters below this are escaped as single characters.
constexpr wchar_t kFirstPrintable = 0x20;
// The escape of control character c is the lone low surrogate kControlEscape + c.
constexpr wchar_t kControlEscape = 0xDC00;
constexpr wchar_t kControlEscapeLast = kControlEscape + kFirstPrintable - 1;

// Expat refuses lone surrogates. Before parsing, each control escape is turned
// into the pair kParseMark, kParsePayload + c, and a kParseMark of the text is
// doubled; after parsing, attribute values are turned back. U+FDD0 is a
// noncharacter, set aside for such use inside a process and accepted by expat.
constexpr wchar_t kParseMark = 0xFDD0;
constexpr wchar_t kParsePayload = 0x40;  // '@'..'_': no markup, no white space
// UTF-8 of kParseMark, and of the control escapes (ED B0 80 to ED B0 9F) in
// the UTF-8 form of a document.
const char kParseMarkUtf8[] = "\xEF\xB7\x90";
constexpr unsigned char kEscapeLead0 = 0xED, kEscapeLead1 = 0xB0, kEscapeTail = 0x80;

// Expat takes at most INT_MAX bytes at once; larger texts go in even pieces.
constexpr size_t kParsePiece = size_t{1} << 30;

// Character references written for the escaped characters, and read back.
struct Reference {
    wchar_t character;
    const wchar_t* text;
};
const Reference kReferences[] = {
    {L'<', L"&#x003C;"}, {L'"', L"&#x0022;"}, {L'\r', L"&#x000d;"}, {L'\n', L"&#x000a;"}, {L'&', L"&#x0026;"},
};

bool IsRunType(const CKvVariant& node, const char* name) { return node.GetRunType() == CKvVariantRunType(name); }

bool IsControlEscape(wchar_t c) { return c >= kControlEscape && c <= kControlEscapeLast; }

// Rewrites `in` character by character: `step(in, i, out)` appends what
// stands for in[i] and answers how many further characters it used up.
template <typename Step>
CKvStringW Rewrite(const std::wstring& in, Step&& step) {
    std::wstring out;
    out.reserve(in.size());
    for (size_t i = 0; i < in.size(); ++i) i += step(in, i, out);
    return CKvStringW(out);
}

// ---- Writing

// Shared by both forms: `Text` is CKvStringW or CKvStringA.
template <typename Text>
void AppendAscii(Text& out, const char* ascii) {
    for (; *ascii; ++ascii) out += static_cast<typename Text::char_type>(*ascii);
}

// Names given to a variant are valid element names already; only a node that
// was never named has an empty one, written as ValidateName would make it so
// that the document stays well-formed.
const wchar_t kUnnamedElement[] = L"no_name";
void AppendName(CKvStringW& out, const CKvStringW& name) { out += name.IsEmpty() ? kUnnamedElement : name.c_str(); }
void AppendName(CKvStringA& out, const CKvStringW& name) {
    if (name.IsEmpty()) out += "no_name";
    else out += CKvStringUtils::WtoUTF8(name.c_str(), name.Size());
}
void AppendRunType(CKvStringW& out, const CKvVariantRunType& rt) { out += CKvStringW(rt.GetName()); }
void AppendRunType(CKvStringA& out, const CKvVariantRunType& rt) { out += rt.GetName(); }

// UTF-8 that keeps the control escapes as the three bytes of their code, which
// the UTF-8 reader recognizes; everything else as CKvStringUtils::WtoUTF8.
void AppendUtf8KeepingEscapes(CKvStringA& out, const CKvStringW& text) {
    const wchar_t* run = text.c_str();
    const wchar_t* end = run + text.Size();
    for (const wchar_t* p = run; p != end; ++p) {
        if (!IsControlEscape(*p)) continue;
        out += CKvStringUtils::WtoUTF8(run, static_cast<size_t>(p - run));
        out += static_cast<char>(kEscapeLead0);
        out += static_cast<char>(kEscapeLead1);
        out += static_cast<char>(kEscapeTail + (*p - kControlEscape));
        run = p + 1;
    }
    out += CKvStringUtils::WtoUTF8(run, static_cast<size_t>(end - run));
}

bool IsXmlChar(unsigned long c) {
    return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF) || (c >= 0xE000 && c <= 0xFFFD) ||
           (c >= 0x10000 && c <= 0x10FFFF);
}

// Whether `text` holds, at `at`, a character reference a parser accepts.
bool IsCharacterReference(const std::wstring& text, size_t at) {
    size_t i = at + 2;
    if (text.compare(at, 2, L"&#") != 0) return false;
    const bool hex = i < text.size() && text[i] == L'x';
    if (hex) ++i;
    unsigned long value = 0;
    size_t digits = 0;
    for (; i < text.size() && text[i] != L';'; ++i, ++digits) {
        const wchar_t c = text[i];
        int digit = -1;
        if (c >= L'0' && c <= L'9') digit = c - L'0';
        else if (hex && c >= L'a' && c <= L'f') digit = c - L'a' + 10;
        else if (hex && c >= L'A' && c <= L'F') digit = c - L'A' + 10;
        if (digit < 0 || value > 0x10FFFF) return false;
        value = value * (hex ? 16 : 10) + static_cast<unsigned long>(digit);
    }
    return i < text.size() && digits > 0 && IsXmlChar(value);
}

// The escaping keeps a tab, which a parser reads back as a blank, and an
// ampersand before '#' or at the end, which may not parse at all. So that what
// is written reads back, a tab is written as its reference, and so is every
// ampersand that does not start a well-formed character reference.
CKvStringW WellFormed(const CKvStringW& escaped) {
    return Rewrite(escaped.Std(), [](const std::wstring& in, size_t i, std::wstring& out) -> size_t {
        if (in[i] == L'\t') {
            out += L"&#x0009;";
        } else if (in[i] == L'&' && !IsCharacterReference(in, i)) {
            out += L"&#x0026;";
        } else {
            out.push_back(in[i]);
        }
        return 0;
    });
}

// The attribute text of a scalar: Base64 of byte arrays as it is, everything
// else escaped.
CKvStringW EscapedValue(const CKvVariant& node) {
    CKvStringW text;
    node.Write(text);  // an empty byte array has no text and writes value=""
    if (IsRunType(node, CKvVariantDataCKvByteArray::m_runType)) return text;
    return WellFormed(CKvXMLAPI::ValidateXML_AttValue(text));
}

void AppendValue(CKvStringW& out, const CKvVariant& node) { out += EscapedValue(node); }
void AppendValue(CKvStringA& out, const CKvVariant& node) {
    if (IsRunType(node, CKvVariantDataDouble::m_runType)) {
        char digits[64];  // "%.15g" needs at most 22
        const auto end = std::to_chars(digits, digits + sizeof digits, node.GetDouble(), std::chars_format::general, 15).ptr;
        out.Append(digits, static_cast<size_t>(end - digits));
        return;
    }
    AppendUtf8KeepingEscapes(out, EscapedValue(node));
}

template <typename Text>
void AppendNode(Text& out, const CKvVariant& node) {
    if (node.IsNull()) return;
    AppendAscii(out, "<");
    AppendName(out, node.GetName());
    AppendAscii(out, " runtype=\"");
    AppendRunType(out, node.GetRunType());
    if (node.GetCount() < 0) {
        AppendAscii(out, "\" value=\"");
        AppendValue(out, node);
        AppendAscii(out, "\"/>");
        return;
    }
    AppendAscii(out, "\">");
    for (int i = 0; i < node.GetCount(); ++i) AppendNode(out, node[i]);
    AppendAscii(out, "</");
    AppendName(out, node.GetName());
    AppendAscii(out, ">");
}

template <typename Text>
kv_result AppendDocument(Text& out, const char* declaration, const CKvVariant& tree) {
    return KvNoThrow([&] {
        AppendAscii(out, declaration);
        AppendAscii(out, kRootOpen);
        AppendNode(out, tree);
        AppendAscii(out, kRootClose);
        return KV_OK;
    });
}

// ---- Reading

// Wide text as the UTF-16 given to expat, with the control escapes protected.
std::u16string ProtectedUtf16(const wchar_t* text, size_t length) {
    std::wstring prepared;
    prepared.reserve(length);
    for (size_t i = 0; i < length; ++i) {
        const wchar_t c = text[i];
        if (c == kParseMark) {
            prepared.append(2, kParseMark);
        } else if (IsControlEscape(c)) {
            prepared.push_back(kParseMark);
            prepared.push_back(static_cast<wchar_t>(kParsePayload + (c - kControlEscape)));
        } else {
            prepared.push_back(c);
        }
    }
    return GetZEMWideStringFromSysString(prepared.c_str(), prepared.size());
}

// UTF-8 text for expat, with the control escapes (ED B0 80..9F) protected.
std::string ProtectedUtf8(const char* text, size_t length) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(text);
    const size_t markLength = sizeof kParseMarkUtf8 - 1;
    std::string prepared;
    prepared.reserve(length);
    for (size_t i = 0; i < length; ++i) {
        if (i + 2 < length && bytes[i] == kEscapeLead0 && bytes[i + 1] == kEscapeLead1 &&
            bytes[i + 2] >= kEscapeTail && bytes[i + 2] < kEscapeTail + kFirstPrintable) {
            prepared.append(kParseMarkUtf8, markLength);
            prepared.push_back(static_cast<char>(kParsePayload + (bytes[i + 2] - kEscapeTail)));
            i += 2;
        } else if (i + markLength <= length &&
                   std::char_traits<char>::compare(text + i, kParseMarkUtf8, markLength) == 0) {
            prepared.append(kParseMarkUtf8, markLength);
            prepared.append(kParseMarkUtf8, markLength);
            i += markLength - 1;
        } else {
            prepared.push_back(text[i]);
        }
    }
    return prepared;
}

// An attribute value from expat, with the control escapes restored.
CKvStringW UnprotectedValue(const char* utf8) {
    return Rewrite(CKvStringUtils::UTF8toW(utf8).Std(), [](const std::wstring& in, size_t i, std::wstring& out) -> size_t {
        const wchar_t next = i + 1 < in.size() ? in[i + 1] : 0;
        if (in[i] == kParseMark && next == kParseMark) {
            out.push_back(kParseMark);
            return 1;
        }
        if (in[i] == kParseMark && next >= kParsePayload && next < kParsePayload + kFirstPrintable) {
            out.push_back(static_cast<wchar_t>(kControlEscape + (next - kParsePayload)));
            return 1;
        }
        out.push_back(in[i]);
        return 0;
    });
}

// What the handlers share: the nodes being filled, innermost last.
struct ParseState {
    struct Frame {
        CKvVariant* node;
        bool takesElements;  // lists take nested elements; a scalar's are skipped
    };

    XML_Parser parser = nullptr;
    CKvVariant* target = nullptr;
    std::vector<Frame> stack;
    bool rootOpen = false;
    bool targetFilled = false;
    int skipDepth = 0;  // > 0 while inside elements that are ignored
    kv_result error = KV_OK;

    void Fail(kv_result code) {
        error = code;
        XML_StopParser(parser, XML_FALSE);
    }
};

// Markup names compared without regard to the case of ASCII letters.
bool EqualNoCase(const char* a, const char* b) {
    auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    for (; *a && *b; ++a, ++b) {
        if (lower(*a) != lower(*b)) return false;
    }
    return *a == *b;
}

const char* FindAttribute(const char** attributes, const char* name) {
    for (const char** a = attributes; a && a[0]; a += 2) {
        if (EqualNoCase(a[0], name)) return a[1];
    }
    return nullptr;
}

void OpenRoot(ParseState& state, const char* name, const char** attributes) {
    state.rootOpen = true;
    kv_result error = KV_OK;
    if (!EqualNoCase(name, kRootName)) {
        error = kXmlErrorWrongRoot;
    } else {
        const char* version = FindAttribute(attributes, kAttrVersion);
        if (!version || std::strcmp(version, kRootVersion) != 0) {
            error = kXmlErrorWrongVersion;
        }
    }
    if (error == KV_OK) return;
    state.target->EnableTypeChange(true);
    state.Fail(error);
}

// A node for an element: a copy of the registered sample of its run type. An
// element without a run type, or of one that is not registered, becomes an
// empty plain list, so that whatever is nested in it is still kept.
std::unique_ptr<CKvVariant> MakeNode(const char* name, const char** attributes) {
    const CKvStringW nodeName = CKvStringUtils::UTF8toW(name);
    const char* runTypeText = FindAttribute(attributes, kAttrRunType);
    const CKvVariantRunType runType(runTypeText ? runTypeText : "");
    if (!runTypeText || CKvVariant::GetRunTypeIndex(runType, false) < 0) {
        return std::make_unique<CKvVariant>(CKvListVariant(), nodeName);
    }
    auto node = std::make_unique<CKvVariant>(runType, nodeName);
    const char* value = FindAttribute(attributes, kAttrValue);
    if (value && node->GetCount() < 0) {
        const CKvStringW text = UnprotectedValue(value);
        node->Read(runType == CKvVariantRunType(CKvVariantDataCKvStringW::m_runType)
                       ? CKvXMLAPI::RevalidateXML_AttValue(text)
                       : text);
    }
    return node;
}

// Puts `node` into `parent`. A member of a structured list replaces the member
// of the same name, so members the document lacks keep the sample's defaults;
// everything else is appended.
CKvVariant* Place(CKvVariant& parent, std::unique_ptr<CKvVariant> node) {
    auto* data = static_cast<CKvVariantDataCKvListVariant*>(parent.GetData());
    CKvListVariant& list = data->Value();
    const bool structured = data->GetRunType() != CKvVariantRunType(CKvVariantDataCKvListVariant::m_runTypeOrig);
    const int index = structured ? parent.IndexOf(node->GetName()) : -1;
    if (index >= 0) {
        list.RemoveAt(index);
        return &list.InsertOwned(index, std::move(node));
    }
    return &list.InsertOwned(list.GetCount(), std::move(node));
}

// The first node fills the caller's tree itself.
CKvVariant* FillTarget(CKvVariant& target, const CKvVariant& node) {
    const bool typeChange = target.EnableTypeChange(true);
    target = node;
    target.SetName(node.GetName());
    target.EnableTypeChange(typeChange);
    return &target;
}

void XMLCALL StartDoctype(void* user, const XML_Char*, const XML_Char*, const XML_Char*, int) {
    static_cast<ParseState*>(user)->Fail(kXmlErrorDoctype);
}

template <typename Parse>
kv_result RunParser(CKvVariant& tree, const char* encoding, bool report, Parse&& feed) {
    XML_Parser parser = XML_ParserCreate(encoding);
    if (!parser) return KV_ERR_OUT_OF_MEMORY;
    ParseState state;
    state.parser = parser;
    state.target = &tree;
    XML_SetUserData(parser, &state);
    XML_SetElementHandler(parser, CKvXMLAPI::StartElement, CKvXMLAPI::EndElement);
    XML_SetStartDoctypeDeclHandler(parser, StartDoctype);
    const kv_result result = KvNoThrow([&] {
        const bool parsed = feed(parser);
        if (state.error == KV_ERR_OUT_OF_MEMORY) return KV_ERR_OUT_OF_MEMORY;
        if (state.error != KV_OK) return KV_ERR_FAILED;
        if (parsed) return KV_OK;
        if (report) {
            CKvStringA message;
            message.Format("Error: CKvSerializerXMLString::VariantFromXML(); %s at line %d",
                           XML_ErrorString(XML_GetErrorCode(parser)), static_cast<int>(XML_GetCurrentLineNumber(parser)));
            KvPrintDiagnostic(message);
        }
        return KV_ERR_FAILED;
    });
    XML_ParserFree(parser);
    return result;
}

// Hands `size` bytes to expat, in pieces it can take; answers success.
bool Feed(XML_Parser parser, const char* bytes, size_t size) {
    do {
        const size_t piece = size < kParsePiece ? size : kParsePiece;
        size -= piece;
        if (XML_Parse(parser, bytes, static_cast<int>(piece), size == 0) != XML_STATUS_OK) return false;
        bytes += piece;
    } while (size > 0);
    return true;
}

const CKvVariant* FindOption(const CKvVariant& options, const wchar_t* name) {
    const CKvVariant* option = options.Search(name, static_cast<const wchar_t*>(nullptr));
    if (!option || !IsRunType(*option, CKvVariantDataVoidPtr::m_runType) || !option->GetVoidPtr()) return nullptr;
    return option;
}

template <typename T>
T* OptionPointer(const CKvVariant& options, const wchar_t* name) {
    const CKvVariant* option = FindOption(options, name);
    return option ? static_cast<T*>(option->GetVoidPtr()) : nullptr;
}

}  // namespace

// ---- CKvXMLAPI

CKvStringW CKvXMLAPI::ValidateXML_AttValue(const CKvStringW& value) {
    return Rewrite(value.Std(), [](const std::wstring& in, size_t i, std::wstring& out) -> size_t {
        const wchar_t c = in[i];
        const bool kept = c == L'&' && (i + 1 == in.size() || in[i + 1] == L'#');
        const Reference* reference = nullptr;
        for (const Reference& r : kReferences) {
            if (r.character == c && !kept) reference = &r;
        }
        if (reference) {
            out += reference->text;
        } else if (c < kFirstPrintable && c != L'\t') {
            out.push_back(static_cast<wchar_t>(kControlEscape + c));
        } else {
            out.push_back(c);
        }
        return 0;
    });
}

CKvStringW CKvXMLAPI::RevalidateXML_AttValue(const CKvStringW& value) {
    return Rewrite(value.Std(), [](const std::wstring& in, size_t i, std::wstring& out) -> size_t {
        const wchar_t c = in[i];
        const bool pairs = i > 0 && in[i - 1] >= 0xD800 && in[i - 1] <= 0xDBFF;
        const wchar_t control = c - kControlEscape;
        if (IsControlEscape(c) && !pairs && control != L'\t' && control != L'\n' && control != L'\r') {
            out.push_back(control);
            return 0;
        }
        for (const Reference& r : kReferences) {
            const size_t length = std::char_traits<wchar_t>::length(r.text);
            if (c == L'&' && in.compare(i, length, r.text) == 0) {
                out.push_back(r.character);
                return length - 1;
            }
        }
        out.push_back(c);
        return 0;
    });
}

void CKvXMLAPI::StartElement(void* user, const char* name, const char** attributes) {
    auto& state = *static_cast<ParseState*>(user);
    if (state.error != KV_OK) return;
    if (state.skipDepth > 0) {
        ++state.skipDepth;
        return;
    }
    if (!state.rootOpen) {
        OpenRoot(state, name, attributes);
        return;
    }
    // Only one tree per document, and scalars hold no elements.
    if ((state.stack.empty() && state.targetFilled) || (!state.stack.empty() && !state.stack.back().takesElements)) {
        ++state.skipDepth;
        return;
    }
    if (state.stack.size() >= static_cast<size_t>(kXmlMaxNodeDepth)) {
        state.Fail(kXmlErrorTooDeep);
        return;
    }
    // No exception may unwind through expat.
    const kv_result result = KvNoThrow([&] {
        std::unique_ptr<CKvVariant> node = MakeNode(name, attributes);
        CKvVariant* placed = nullptr;
        state.stack.reserve(state.stack.size() + 1);
        if (state.stack.empty()) {
            placed = FillTarget(*state.target, *node);
            state.targetFilled = true;
        } else {
            placed = Place(*state.stack.back().node, std::move(node));
        }
        state.stack.push_back({placed, placed->GetCount() >= 0});
        return KV_OK;
    });
    if (result != KV_OK) state.Fail(result);
}

void CKvXMLAPI::EndElement(void* user, const char*) {
    auto& state = *static_cast<ParseState*>(user);
    if (state.error != KV_OK) return;
    if (state.skipDepth > 0) {
        --state.skipDepth;
    } else if (!state.stack.empty()) {
        state.stack.pop_back();
    }
}

// ---- CKvSerializerXMLString

kv_result CKvSerializerXMLString::VariantToXML(CKvStringW& out, const CKvVariant& node) {
    return KvNoThrow([&] {
        AppendNode(out, node);
        return KV_OK;
    });
}

kv_result CKvSerializerXMLString::VariantToXML_UTF8(CKvStringA& out, const CKvVariant& node) {
    return KvNoThrow([&] {
        AppendNode(out, node);
        return KV_OK;
    });
}

kv_result CKvSerializerXMLString::DocumentToXML(CKvStringW& out, const CKvVariant& tree) {
    out.Empty();
    return AppendDocument(out, kWideDeclaration, tree);
}

kv_result CKvSerializerXMLString::DocumentToXML_UTF8(CKvStringA& out, const CKvVariant& tree) {
    out.Empty();
    return AppendDocument(out, kUtf8Declaration, tree);
}

kv_result CKvSerializerXMLString::VariantFromXML(CKvVariant& tree, const wchar_t* text, unsigned length) {
    if (!text) return KV_ERR_FAILED;
    return RunParser(tree, "UTF-16", true, [&](XML_Parser parser) {
        const std::u16string utf16 = ProtectedUtf16(text, length);
        return Feed(parser, reinterpret_cast<const char*>(utf16.data()), utf16.size() * sizeof(char16_t));
    });
}

kv_result CKvSerializerXMLString::VariantFromXML(CKvVariant& tree, const CKvStringW& text) {
    return VariantFromXML(tree, text.c_str(), static_cast<unsigned>(text.Size()));
}

kv_result CKvSerializerXMLString::VariantFromXML_UTF8(CKvVariant& tree, const char* text, unsigned length) {
    if (!text) return KV_ERR_FAILED;
    return RunParser(tree, "UTF-8", false, [&](XML_Parser parser) {
        const std::string utf8 = ProtectedUtf8(text, length);
        return Feed(parser, utf8.data(), utf8.size());
    });
}

kv_result CKvSerializerXMLString::VariantFromXML_UTF8(CKvVariant& tree, const CKvStringA& text) {
    return VariantFromXML_UTF8(tree, text.c_str(), static_cast<unsigned>(text.Size()));
}

kv_result CKvSerializerXMLString::Save(CKvVariant& options, const CKvVariant& tree) {
    if (auto* wide = OptionPointer<CKvStringW>(options, L"string")) return DocumentToXML(*wide, tree);
    if (auto* utf8 = OptionPointer<CKvStringA>(options, L"stringUTF8")) return DocumentToXML_UTF8(*utf8, tree);
    return KV_ERR_INVALID_ARG;
}

kv_result CKvSerializerXMLString::Load(CKvVariant& tree, const CKvVariant& options) {
    const CKvVariant* rawLength = options.Search(L"rawStringLen", static_cast<const wchar_t*>(nullptr));
    if (const auto* wide = OptionPointer<const CKvStringW>(options, L"string")) return VariantFromXML(tree, *wide);
    const auto* rawWide = OptionPointer<const wchar_t>(options, L"rawString");
    if (rawWide && rawLength) return VariantFromXML(tree, rawWide, rawLength->GetKv_uint32());
    if (const auto* utf8 = OptionPointer<const CKvStringA>(options, L"stringUTF8")) return VariantFromXML_UTF8(tree, *utf8);
    const auto* rawUtf8 = OptionPointer<const char>(options, L"rawStringUTF8");
    if (rawUtf8 && rawLength) return VariantFromXML_UTF8(tree, rawUtf8, rawLength->GetKv_uint32());
    return KV_ERR_INVALID_ARG;
}
