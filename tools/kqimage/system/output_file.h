// A file that a command makes: complete under its final name, or gone.
//
// A name that is free is taken at once and exclusively, so that nothing of somebody else's is ever
// overwritten; a file that is to be replaced stays whole until the new one is complete and takes
// its name. What has not been committed is removed when the object goes.
#ifndef KQIMAGE_SYSTEM_OUTPUT_FILE_H
#define KQIMAGE_SYSTEM_OUTPUT_FILE_H

#include <string>

#include "kqimage/system/file_identity.h"

namespace kqimage {

class OutputFile {
 public:
  enum class Existing { kRefuse, kReplace };
  enum class Growth {
    kUnderFinalName,    // unfinished contents can be told from finished ones, as an image's can
    kUnderPartialName,  // they can't: NAME.XXXXXX.partial until the commit
  };

  OutputFile(const std::string& path, Existing existing, Growth growth);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  // Where to write; the file exists, empty.
  const std::string& WritePath() const { return writePath_; }

  // Makes the contents durable and gives the file its final name. Throws a Failure, also when
  // another file has taken a name that was free before.
  void Commit();

 private:
  void CreateExclusively();
  void CreatePartial(unsigned mode);

  std::string finalPath_;
  std::string writePath_;
  FileIdentity identity_;
  bool replaces_ = false;
  bool isCommitted_ = false;
};

}  // namespace kqimage

#endif
