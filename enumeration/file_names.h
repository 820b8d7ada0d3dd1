// Names that follow from the name of an image file. Neither reads a header or knows a catalogue.
#ifndef KQ_ENUMERATION_FILE_NAMES_H
#define KQ_ENUMERATION_FILE_NAMES_H

#include <string>

#include "foundation/status.h"

namespace kq {

// The path that continues the series of the given file with the tag ("-i" or "-m"): the tag's
// number counted up, or a new tag with the number 001, until the name is free on the disk. Nothing
// is reserved.
//
// A name counts as free if nothing can be looked up under it, and also if it names a directory or a
// block device.
//
// -87 the name is shorter than five characters or does not end in twf or twi; otherwise as
// ResolveFullPath. Throws std::bad_alloc.
KQStatus NextFileNameFrom(const char* path, const char* tag, std::string* nextPath);

// The path of the key file of the given file's family: the name up to its first "-b" tag, and
// ".twk". Whether it exists is not looked at.
//
// -1392 no "-b" tag; otherwise as ResolveFullPath. Throws std::bad_alloc.
KQStatus KeyFileNameFrom(const char* path, std::string* keyPath);

}  // namespace kq

#endif
