#pragma once
// Extended attributes of files: small named values stored with a file by the file system. The
// names are the engine's own ("DIALOG.username"); where the system keeps attributes in namespaces
// the implementation maps them into the namespace for user data and back, so a name reads and
// lists as it was set. Attributes of other namespaces are not listed.
//
// Every call follows a final symbolic link and returns 0 on success or the errno value of the
// failure.
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tw {

// Sets (creates or replaces) the attribute to exactly these bytes.
int setExtendedAttribute(const std::string& path, const std::string& name, std::string_view value);
// The size in bytes of the attribute's value.
int extendedAttributeSize(const std::string& path, const std::string& name, size_t* size);
// The attribute's value.
int getExtendedAttribute(const std::string& path, const std::string& name, std::string* value);
int removeExtendedAttribute(const std::string& path, const std::string& name);
// The names of the file's attributes, in the order the file system lists them.
int listExtendedAttributes(const std::string& path, std::vector<std::string>* names);

}  // namespace tw
