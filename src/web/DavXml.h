#pragma once
// The XML of WebDAV request bodies and answers: request bodies parsed with namespace processing
// into a small tree, and the writing helpers that escape what they write.
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "web/HttpServer.h"

namespace tw::web::dav {

inline constexpr const char* kDavNamespace = "DAV:";

// An element (or, with `isText`, a run of character data) of a parsed document.
struct XmlNode {
    bool isText = false;
    std::string ns;    // the namespace URI; "" for none
    std::string name;  // the local name
    std::string text;  // the character data of a text node
    // Attributes other than namespace declarations: namespace URI, local name, value.
    struct Attribute {
        std::string ns, name, value;
    };
    std::vector<Attribute> attributes;
    std::vector<XmlNode> children;

    bool is(std::string_view wantNs, std::string_view wantName) const {
        return !isText && ns == wantNs && name == wantName;
    }
    // The first child element with that name; nullptr when there is none.
    const XmlNode* child(std::string_view wantNs, std::string_view wantName) const;
    // The child elements, text left out.
    std::vector<const XmlNode*> elements() const;
    // All character data below this node, joined.
    std::string textContent() const;
};

// The document element of `body`; nullopt with the parser's reason in `error` when the body is not
// well-formed, uses undeclared prefixes, holds a document type declaration or nests too deep.
std::optional<XmlNode> parseXml(std::string_view body, std::string* error = nullptr);

// `text` escaped for character data and attribute values (the servers' one escaper).
inline std::string escape(std::string_view text) { return escapeMarkup(text); }

// The children of `node` as a self-contained XML fragment: every element declares its own
// namespace, so the fragment means the same wherever it is placed.
std::string serializeChildren(const XmlNode& node);

// An element in the namespace `ns` with the given inner XML, written with its own namespace
// declaration ("<D:name>" for DAV:, which the answer's root declares).
std::string element(const std::string& ns, const std::string& name, const std::string& inner);

}  // namespace tw::web::dav
