#include "web/DavXml.h"

#include <expat.h>

namespace tw::web::dav {

namespace {

constexpr char kSeparator = '\x01';  // between a namespace URI and a local name in expat's names
constexpr size_t kMaxDepth = 64;

void splitName(const char* qualified, std::string* ns, std::string* name) {
    const std::string_view text(qualified);
    const size_t cut = text.find(kSeparator);
    if (cut == std::string_view::npos) {
        ns->clear();
        *name = std::string(text);
    } else {
        *ns = std::string(text.substr(0, cut));
        *name = std::string(text.substr(cut + 1));
    }
}

struct ParseState {
    XML_Parser parser = nullptr;
    std::vector<XmlNode> stack;  // the open elements, the document element first
    std::optional<XmlNode> root;
    std::string failure;

    void stop(const std::string& why) {
        if (failure.empty()) failure = why;
        XML_StopParser(parser, XML_FALSE);
    }
};

void XMLCALL onStart(void* user, const char* qualified, const char** attributes) {
    auto& state = *static_cast<ParseState*>(user);
    if (state.stack.size() >= kMaxDepth) return state.stop("elements nested too deep");
    XmlNode node;
    splitName(qualified, &node.ns, &node.name);
    for (const char** a = attributes; a[0] && a[1]; a += 2) {
        XmlNode::Attribute attribute;
        splitName(a[0], &attribute.ns, &attribute.name);
        attribute.value = a[1];
        node.attributes.push_back(std::move(attribute));
    }
    state.stack.push_back(std::move(node));
}

void XMLCALL onEnd(void* user, const char*) {
    auto& state = *static_cast<ParseState*>(user);
    XmlNode node = std::move(state.stack.back());
    state.stack.pop_back();
    if (state.stack.empty())
        state.root = std::move(node);
    else
        state.stack.back().children.push_back(std::move(node));
}

void XMLCALL onText(void* user, const XML_Char* data, int length) {
    auto& state = *static_cast<ParseState*>(user);
    if (state.stack.empty()) return;
    auto& children = state.stack.back().children;
    if (children.empty() || !children.back().isText) {
        XmlNode text;
        text.isText = true;
        children.push_back(std::move(text));
    }
    children.back().text.append(data, static_cast<size_t>(length));
}

void XMLCALL onDoctype(void* user, const XML_Char*, const XML_Char*, const XML_Char*, int) {
    // Entities declared in a document type are a way to blow up memory; WebDAV bodies need none.
    static_cast<ParseState*>(user)->stop("document type declarations are not accepted");
}

void serializeNode(const XmlNode& node, std::string& out) {
    if (node.isText) {
        out += escape(node.text);
        return;
    }
    out += '<' + node.name + " xmlns=\"" + escape(node.ns) + '"';
    int prefix = 0;
    for (const auto& a : node.attributes) {
        if (a.ns.empty()) {
            out += ' ' + a.name + "=\"" + escape(a.value) + '"';
        } else {
            const std::string p = "a" + std::to_string(prefix++);
            out += " xmlns:" + p + "=\"" + escape(a.ns) + "\" " + p + ':' + a.name + "=\"" + escape(a.value) + '"';
        }
    }
    if (node.children.empty()) {
        out += "/>";
        return;
    }
    out += '>';
    for (const auto& child : node.children) serializeNode(child, out);
    out += "</" + node.name + '>';
}

}  // namespace

const XmlNode* XmlNode::child(std::string_view wantNs, std::string_view wantName) const {
    for (const auto& c : children)
        if (c.is(wantNs, wantName)) return &c;
    return nullptr;
}

std::vector<const XmlNode*> XmlNode::elements() const {
    std::vector<const XmlNode*> out;
    for (const auto& c : children)
        if (!c.isText) out.push_back(&c);
    return out;
}

std::string XmlNode::textContent() const {
    if (isText) return text;
    std::string out;
    for (const auto& c : children) out += c.textContent();
    return out;
}

std::optional<XmlNode> parseXml(std::string_view body, std::string* error) {
    ParseState state;
    state.parser = XML_ParserCreateNS(nullptr, kSeparator);
    if (!state.parser) {
        if (error) *error = "out of memory";
        return std::nullopt;
    }
    XML_SetUserData(state.parser, &state);
    XML_SetElementHandler(state.parser, onStart, onEnd);
    XML_SetCharacterDataHandler(state.parser, onText);
    XML_SetStartDoctypeDeclHandler(state.parser, onDoctype);
    const auto status = XML_Parse(state.parser, body.data(), static_cast<int>(body.size()), XML_TRUE);
    if (status != XML_STATUS_OK && state.failure.empty())
        state.failure = std::string(XML_ErrorString(XML_GetErrorCode(state.parser))) + " at line " +
                        std::to_string(XML_GetCurrentLineNumber(state.parser));
    XML_ParserFree(state.parser);
    if (!state.failure.empty() || !state.root) {
        if (error) *error = state.failure.empty() ? "no document element" : state.failure;
        return std::nullopt;
    }
    return std::move(state.root);
}

std::string serializeChildren(const XmlNode& node) {
    std::string out;
    for (const auto& child : node.children) serializeNode(child, out);
    return out;
}

std::string element(const std::string& ns, const std::string& name, const std::string& inner) {
    std::string open, close;
    if (ns == kDavNamespace) {
        open = "<D:" + name;
        close = "</D:" + name + '>';
    } else if (ns.empty()) {
        open = '<' + name + " xmlns=\"\"";
        close = "</" + name + '>';
    } else {
        open = "<P:" + name + " xmlns:P=\"" + escape(ns) + '"';
        close = "</P:" + name + '>';
    }
    return inner.empty() ? open + "/>" : open + '>' + inner + close;
}

}  // namespace tw::web::dav
