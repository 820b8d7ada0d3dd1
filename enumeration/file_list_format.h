// How a list of files becomes the one text that a client gets.
#ifndef KQ_ENUMERATION_FILE_LIST_FORMAT_H
#define KQ_ENUMERATION_FILE_LIST_FORMAT_H

#include <cstdint>
#include <string_view>
#include <vector>

#include "enumeration/enumerated_file.h"
#include "foundation/status.h"

namespace kq {

using FileList = std::vector<const EnumeratedFile*>;

// Writes the files' names, as the KQ_LIST_ flags say, with separator between them; a null separator
// is one blank. Continuation parts never carry a directory because of their place: only the very
// first item does, and with KQ_LIST_FULL_PATHS all do.
//
// The text, which can be long, is measured and then written into the caller's buffer directly.
// -234 buffer null or too small, by the protocol of DeliverText; -8 the text's size does not fit
// into 32 bits.
KQStatus FileListFormat(const FileList& files, std::uint32_t flags, const char* separator,
                        char* buffer, std::uint32_t* size);

// Gives a client a text: with its NUL into buffer, leaving *size as it is, if *size is enough.
// Otherwise the bytes needed are stored in *size, the buffer stays untouched, and -234 comes back.
KQStatus DeliverText(std::string_view text, char* buffer, std::uint32_t* size);

}  // namespace kq

#endif
