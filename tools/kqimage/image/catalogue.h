// The library's catalogue of image files, for the client: which files lie in some folders, and
// which of them form chains.
#ifndef KQIMAGE_IMAGE_CATALOGUE_H
#define KQIMAGE_IMAGE_CATALOGUE_H

#include <cstdint>
#include <string>
#include <vector>

namespace kqimage {

// Paths are absolute, without symbolic links in their folders.
struct CataloguedFile {
  std::string path;
  std::vector<std::string> parts;  // the further parts of a split image, those that were found
};

// An image by its name that is no sound image.
struct LeftOutFile {
  std::string path;
  std::string why;
};

class Catalogue {
 public:
  Catalogue();
  ~Catalogue();
  Catalogue(const Catalogue&) = delete;
  Catalogue& operator=(const Catalogue&) = delete;

  // Reads the headers of the image files in the folder, whatever folders have been added before.
  // Throws a Failure if it is no folder or can't be opened. What ends the reading later is kept as
  // a problem, and the files that were read before it stay.
  void Add(const std::string& folder);
  const std::vector<std::string>& Problems() const { return problems_; }

  // The shortest chain of complete files that ends at the image, with all parts, in order; nothing
  // if there is none, or if the image is not in the catalogue.
  std::vector<std::string> ChainOf(const std::string& image) const;

  // The files from which a volume can be restored, and all others.
  std::vector<CataloguedFile> Whole() const;
  std::vector<CataloguedFile> Orphans() const;

  // The files that are named .twf or .twi and not in the catalogue, in the order of their paths.
  std::vector<LeftOutFile> LeftOut() const;

 private:
  std::uint64_t handle_ = 0;
  std::vector<std::string> folders_;  // as the library names them, with their slash
  std::vector<std::string> problems_;
};

}  // namespace kqimage

#endif
