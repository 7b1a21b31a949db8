// The command that shows the metadata held in a chunk, a lite-variant chunk
// (plain or compressed) or an XML chunk, as one UTF-8 XML document.
#include <string>
#include <string_view>

#include "gnr_system/CKvLiteVariant.h"
#include "gnr_system/CKvSerializerXMLString.h"
#include "gnr_system/CKvVariant.h"
#include "tools/qv8/Qv8Command.h"

namespace {

// XML chunks start with their declaration or their root element; every
// other chunk is taken as a lite-variant encoding.
bool LooksLikeXml(const CKvByteArray& data) {
    const auto* p = reinterpret_cast<const char*>(data.GetData());
    size_t i = 0;
    if (data.GetSize() >= 3 && std::string_view(p, 3) == "\xEF\xBB\xBF") i = 3;  // a UTF-8 byte-order mark
    while (i < data.GetSize() && (p[i] == ' ' || p[i] == '\t' || p[i] == '\r' || p[i] == '\n')) ++i;
    return i < data.GetSize() && p[i] == '<';
}

// One element per line, indented by two spaces per level. The documents hold
// no text between elements, so only the tags need placing.
std::string Indent(std::string_view xml) {
    std::string out;
    out.reserve(xml.size() + xml.size() / 4);
    int depth = 0;
    size_t pos = 0;
    while (pos < xml.size()) {
        const size_t open = xml.find('<', pos);
        if (open == std::string_view::npos) break;
        size_t close = open + 1;
        char quote = 0;
        for (; close < xml.size(); ++close) {  // a '>' inside an attribute value does not end the tag
            if (quote) { if (xml[close] == quote) quote = 0; }
            else if (xml[close] == '"' || xml[close] == '\'') quote = xml[close];
            else if (xml[close] == '>') break;
        }
        const std::string_view tag = xml.substr(open, close + 1 - open);
        const bool closing = tag.size() > 1 && tag[1] == '/';
        const bool standalone = tag.size() > 1 && (tag[1] == '?' || tag[1] == '!' || tag[tag.size() - 2] == '/');
        if (closing && depth > 0) --depth;
        out.append(static_cast<size_t>(depth) * 2, ' ').append(tag).push_back('\n');
        if (!closing && !standalone) ++depth;
        pos = close + 1;
    }
    return out;
}

int RunXml(const Qv8Args& args) {
    bool indent;
    std::vector<std::string> positional;
    if (!SplitArgs(args, "--indent", indent, positional)) return kExitUsage;
    if (positional.size() != 2) return kExitUsage;
    const std::string& file = positional[0];
    const std::string name = ChunkNameArg(positional[1]);

    CKvFileChunker chunker;
    kv_result r = OpenForReading(chunker, file);
    if (r != KV_OK) return ReportOpenFailure(file, r, chunker);
    CKvByteArray data;
    r = chunker.GetChunk(data, name.c_str());
    chunker.Finalize();
    if (r == KV_ERR_NOT_FOUND) return ReportFailure(file, "no chunk named \"" + name + "\"", r);
    if (r != KV_OK) return ReportFailure(file, "reading chunk \"" + name + "\" failed", r);

    std::string document;
    CKvVariant tree;
    if (LooksLikeXml(data)) {
        // Shown as stored, once it has been checked to parse.
        document.assign(reinterpret_cast<const char*>(data.GetData()), data.GetSize());
        r = CKvSerializerXMLString::VariantFromXML_UTF8(tree, document.c_str(), static_cast<unsigned>(document.size()));
        if (r != KV_OK) return ReportFailure(file, "chunk \"" + name + "\" is not a valid metadata document", r);
    } else {
        CKvLiteVariantR reader;
        static_cast<CKvByteArray&>(reader).Swap(data);  // the reader takes the bytes over, no copy
        reader.Reset();
        tree.SetName(reader.GetCurrentName());  // the document's root is the chunk's top item
        r = reader.GetCurrentValue(tree);
        if (r != KV_OK) return ReportFailure(file, "chunk \"" + name + "\" holds no readable metadata", r);
        CKvStringA utf8;
        r = CKvSerializerXMLString::DocumentToXML_UTF8(utf8, tree);
        if (r != KV_OK) return ReportFailure(file, "chunk \"" + name + "\" cannot be shown as XML", r);
        document = utf8.Std();
    }
    if (indent) document = Indent(document);
    else if (document.empty() || document.back() != '\n') document.push_back('\n');
    if (!WriteStdout(document.data(), document.size()))
        return ReportFailure("standard output", "write failed", KV_ERR_FAILED);
    return kExitOk;
}

}  // namespace

const SQv8Command kXmlCommand = {
    "xml", "show the metadata of a chunk as an XML document",
    "usage: qv8 xml FILE NAME [--indent]\n"
    "\n"
    "Writes the metadata held in chunk NAME of FILE to standard output as one\n"
    "UTF-8 XML document. A lite-variant chunk (plain or compressed) is\n"
    "converted; an XML chunk is written as stored, after checking that it\n"
    "parses. The final \"!\" of NAME may be left out.\n"
    "\n"
    "  --indent   one element per line, indented by nesting depth\n"
    "\n"
    "Document shape: <?xml ...?><variant version=\"1.0\">NODE</variant>, where a\n"
    "value is <NAME runtype=\"TYPE\" value=\"TEXT\"/> and a list is\n"
    "<NAME runtype=\"TYPE\">NODES</NAME>.\n",
    RunXml};
