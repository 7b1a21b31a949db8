// The XML document form of a variant tree: one element per node, the run type
// and the escaped text form of the value as attributes. Written as wide text
// (declared UTF-16) or as UTF-8, read back with expat.
#pragma once

#include "gnr_system/CKvString.h"
#include "gnr_system/CKvVariant.h"
#include "gnr_system/KvClass.h"
#include "gnr_system/KvResult.h"

// Writes a tree to, and reads it from, a destination named by an options tree.
class IKvSerializer : public IKvInterface {
public:
    virtual kv_result Save(CKvVariant& options, const CKvVariant& tree) = 0;
    virtual kv_result Load(CKvVariant& tree, const CKvVariant& options) = 0;
};

// Deepest nesting of nodes a document may have; deeper documents fail with KV_ERR_FAILED,
// so that what is read can be written, copied and destroyed without running
// out of stack.
constexpr int kXmlMaxNodeDepth = 256;

class CKvSerializerXMLString final : public IKvSerializer {
public:
    const char* GetClass() override { return "CKvSerializerXMLString"; }
    // Writes the whole document of `tree`. The destination is the "voidPtr"
    // member of `options` named "string" (a CKvStringW*, gets the wide
    // document) or else "stringUTF8" (a CKvStringA*, gets the UTF-8 document);
    // its previous content is replaced. KV_ERR_INVALID_ARG when neither is there, KV_ERR_OUT_OF_MEMORY when
    // memory runs out.
    kv_result Save(CKvVariant& options, const CKvVariant& tree) override;
    // Reads a document into `tree`. The source is taken from `options`, in
    // this order: "string" (CKvStringW*), "rawString" with "rawStringLen" (a
    // wide buffer and its length in characters), "stringUTF8" (CKvStringA*),
    // "rawStringUTF8" with "rawStringLen" (bytes). KV_ERR_INVALID_ARG when none is there;
    // otherwise as VariantFromXML.
    kv_result Load(CKvVariant& tree, const CKvVariant& options) override;

    // Appends the elements of `node` and its subtree (no declaration, no
    // "variant" root). A null node writes nothing. 0, or KV_ERR_OUT_OF_MEMORY.
    static kv_result VariantToXML(CKvStringW& out, const CKvVariant& node);
    // The same in UTF-8; doubles are written with "%.15g" here.
    static kv_result VariantToXML_UTF8(CKvStringA& out, const CKvVariant& node);

    // Reads the tree of a whole document into `tree` (left as it is when the
    // document holds no node): 0, or KV_ERR_FAILED when the text is no well-formed
    // document, the root is not <variant version="1.0">, or nodes nest deeper
    // than kXmlMaxNodeDepth; KV_ERR_OUT_OF_MEMORY when memory runs out. On failure `tree` may be
    // partly filled. `length` counts characters; the wide form prints expat's
    // error and line to standard output.
    // Reading is lenient: an element of an unregistered run type becomes an
    // empty plain list that keeps what is nested in it; elements nested in a
    // scalar, and any node after the first, are skipped; a member of a
    // structured type takes the place of the sample's member of its name, so
    // members the document lacks keep their defaults.
    static kv_result VariantFromXML(CKvVariant& tree, const wchar_t* text, unsigned length);
    static kv_result VariantFromXML(CKvVariant& tree, const CKvStringW& text);
    static kv_result VariantFromXML_UTF8(CKvVariant& tree, const char* text, unsigned length);
    static kv_result VariantFromXML_UTF8(CKvVariant& tree, const CKvStringA& text);

    // Whole documents: declaration, "variant" root and the elements of `tree`.
    static kv_result DocumentToXML(CKvStringW& out, const CKvVariant& tree);
    static kv_result DocumentToXML_UTF8(CKvStringA& out, const CKvVariant& tree);
};

// Escaping of attribute values and the element handlers given to expat.
class CKvXMLAPI {
public:
    // The value as it is written into an attribute: '<', '"', carriage return,
    // line feed and an ampersand not followed by '#' (nor last) become
    // character references; a tab stays; every other control character c
    // becomes the single character U+DC00 + c, which keeps it reversible.
    static CKvStringW ValidateXML_AttValue(const CKvStringW& value);
    // The inverse: U+DC00 + c back to c (except where it completes a surrogate
    // pair and for the codes of tab, line feed and carriage return) and the
    // five character references above back to their characters.
    static CKvStringW RevalidateXML_AttValue(const CKvStringW& value);

    // Expat element handlers; `user` is the parse state of VariantFromXML*.
    // Names and attributes arrive as UTF-8.
    static void StartElement(void* user, const char* name, const char** attributes);
    static void EndElement(void* user, const char* name);
};
