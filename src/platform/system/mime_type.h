// MIME types of file-name extensions.
//
// Looked up in /etc/mime.types (read once, on first use; a missing or unreadable file is fine),
// then in a built-in table of common types, ignoring case. When an extension is listed twice, its
// first line wins.
#pragma once

#include <optional>
#include <string>
#include <string_view>

// "png" -> "image/png"; "application/octet-stream" when no type is known (also for "").
std::string ZRBMIMETypeForPathExtension(std::string_view pathExtension);

// The first extension listed for a MIME type ("text/plain" -> "txt"); parameters after ";" are
// ignored. nullopt when none is known.
std::optional<std::string> ZRBPreferredPathExtensionForMIMEType(std::string_view mimeType);

// Reads another mime.types file from now on; nullopt returns to /etc/mime.types.
void ZRBSetMIMETypesFilePath(std::optional<std::string> path);
