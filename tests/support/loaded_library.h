// A copy of the library in a folder of its own, beside which a configuration file may lie.
#ifndef KQ_TESTS_SUPPORT_LOADED_LIBRARY_H
#define KQ_TESTS_SUPPORT_LOADED_LIBRARY_H

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace kqtest {

class LoadedLibrary {
 public:
  LoadedLibrary(const std::string& libraryFile, const std::string& folder) {
    const std::string copy = folder + "/libkqimageapi.so.6";
    std::filesystem::copy_file(libraryFile, copy);
    library_ = dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library_ == nullptr) ADD_FAILURE() << dlerror();
  }
  ~LoadedLibrary() {
    if (library_ != nullptr) dlclose(library_);
  }
  LoadedLibrary(const LoadedLibrary&) = delete;
  LoadedLibrary& operator=(const LoadedLibrary&) = delete;

  template <class Function>
  Function* Find(const char* name, Function*) const {
    return reinterpret_cast<Function*>(dlsym(library_, name));
  }

 private:
  void* library_ = nullptr;
};

}  // namespace kqtest

// The copy's own function.
#define KQ_FIND(library, function) ((library).Find(#function, &(function)))

#endif
