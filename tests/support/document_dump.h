// The hex dumps of whole files that the format documents show.
#ifndef KQ_TESTS_SUPPORT_DOCUMENT_DUMP_H
#define KQ_TESTS_SUPPORT_DOCUMENT_DUMP_H

#include <cstdint>
#include <string>
#include <vector>

namespace kqtest {

// Sixteen bytes a line; lines of zeros are left out, repeats of the line above become one "*".
std::string RenderDump(const std::vector<std::uint8_t>& file);

// The first block of the document that is marked as a hex dump.
std::string DumpInDocument(const std::string& path);

}  // namespace kqtest

#endif
