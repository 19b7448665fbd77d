// Recursive removal of a directory's files and subdirectories.
#pragma once

class CDirectory {
 public:
  // Deletes the non-hidden files and subdirectories of path and, with
  // removeParent, the directory itself. Note the result rules: the final
  // rmdir of a directory is judged in reverse (success gives 0), and a
  // subdirectory removed completely therefore stops its caller.
  static int RemoveDir(const char* path, int removeParent);
};
