// The folder of the program's own file, where the engine is started: it looks for its kernel file
// relative to the working directory, and a kernel file is code.
#pragma once

#include <functional>
#include <string>

namespace zxtool {

// Calls `work` with the program's folder as working directory, and returns to the one before.
// False, and nothing is called, if the way there or back is barred. Throws Error(kInputOutput) if
// the way back is barred all the same. The working directory is the process's: no other thread may
// open files meanwhile.
bool in_program_folder(const std::function<void()>& work);

// To be called in the program's folder: why the kernel file that the engine would take from there
// is not to be trusted, or nothing. Taken is only the one of the program's own prefix,
// ../share/zorvex, or of a system folder. The places beside the program that come before it must be
// empty, and what leads to it must be owned by root, the program's owner or this user, and writable
// by them and groups of their choice only.
std::string distrust_of_kernel_file();

}  // namespace zxtool
