// Files of one folder that belong together: none is in its place before all are written, checked
// and flushed to disk.
#pragma once

#include "atomic_file.hpp"

#include <deque>
#include <string>
#include <vector>

namespace zxtool {

class FolderFiles {
  public:
    // Makes the folder unless it is there. Throws Error(kInputOutput).
    explicit FolderFiles(std::string folder);
    // Unless commit() was called, removes temporary files, and the folder if it is new.
    ~FolderFiles();
    FolderFiles(const FolderFiles&) = delete;
    FolderFiles& operator=(const FolderFiles&) = delete;

    // A further file of the folder, to be written and settled. It stays where it is.
    AtomicFile& add(const std::string& name);
    // Removes `others` of the folder, which an earlier round may have left: they would be taken for
    // a part of this one. Then puts all files in their places, one after the other. Throws
    // Error(kInputOutput), before anything is changed when one of the others is a folder.
    void commit(const std::vector<std::string>& others);

  private:
    std::string folder_;
    bool is_new_;
    std::deque<AtomicFile> files_;
};

}  // namespace zxtool
