// Hands arbitrary bytes to the XML reader, as UTF-8 text and as wide text
// (decoded from UTF-8, and taken as raw 32-bit characters). Whatever tree is
// read must write a document that reads back, in both forms, and writing is
// stable from the second pass on.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "gnr_system/CKvSerializerXMLString.h"

namespace {

std::string WriteUtf8(const CKvVariant& tree) {
    CKvStringA text;
    if (CKvSerializerXMLString::DocumentToXML_UTF8(text, tree) != KV_OK) std::abort();
    return text.Std();
}

std::wstring WriteWide(const CKvVariant& tree) {
    CKvStringW text;
    if (CKvSerializerXMLString::DocumentToXML(text, tree) != KV_OK) std::abort();
    return text.Std();
}

CKvVariant ReadUtf8(const std::string& text) {
    CKvVariant tree;
    if (CKvSerializerXMLString::VariantFromXML_UTF8(tree, text.data(), static_cast<unsigned>(text.size())) != KV_OK) {
        std::abort();
    }
    return tree;
}

CKvVariant ReadWide(const std::wstring& text) {
    CKvVariant tree;
    if (CKvSerializerXMLString::VariantFromXML(tree, text.data(), static_cast<unsigned>(text.size())) != KV_OK) {
        std::abort();
    }
    return tree;
}

// A tree read once: its documents read back, and from then on each pass writes
// the same document. (The first pass may still change a value: a "%.15f" or
// "%.15g" double, or a string whose text was itself a character reference.)
void CheckWritesBack(const CKvVariant& tree) {
    const std::string utf8 = WriteUtf8(ReadUtf8(WriteUtf8(tree)));
    if (WriteUtf8(ReadUtf8(utf8)) != utf8) std::abort();
    const std::wstring wide = WriteWide(ReadWide(WriteWide(tree)));
    if (WriteWide(ReadWide(wide)) != wide) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* text = reinterpret_cast<const char*>(data);
    CKvVariant fromUtf8;
    if (CKvSerializerXMLString::VariantFromXML_UTF8(fromUtf8, text, static_cast<unsigned>(size)) == KV_OK) {
        CheckWritesBack(fromUtf8);
    }

    const CKvStringW decoded = CKvStringUtils::UTF8toW(text, size);
    CKvVariant fromWide;
    if (CKvSerializerXMLString::VariantFromXML(fromWide, decoded) == KV_OK) CheckWritesBack(fromWide);

    std::wstring raw(size / sizeof(wchar_t), L'\0');
    if (!raw.empty()) std::memcpy(&raw[0], data, raw.size() * sizeof(wchar_t));
    CKvVariant fromRaw;
    if (CKvSerializerXMLString::VariantFromXML(fromRaw, raw.data(), static_cast<unsigned>(raw.size())) == KV_OK) {
        CheckWritesBack(fromRaw);
    }
    return 0;
}
