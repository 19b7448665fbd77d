// Tests of CDirectory::RemoveDir on real trees under a fresh mkdtemp
// directory: which entries go, what is left, the result (with its reversed
// judgement of the final rmdir) and every trace line at its level.
#include "host/HostControl.h"
#include "tests/support/TempFiles.h"
#include "util/Directory.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <linux/fs.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;

const std::string kColumn = "\nCDirectory          : ";

struct CLine {
  unsigned int m_Level;
  std::string m_Text;
};

// The trace a run writes when the host passes levels up to maxLevel.
std::string Expected(const std::vector<CLine>& lines, unsigned int maxLevel) {
  std::string text;
  for (const CLine& line : lines) {
    if (line.m_Level <= maxLevel) text += line.m_Text;
  }
  return text;
}

std::string Quoted(const std::string& text) { return "\"" + text + "\""; }

CLine RemoveDirectory(const std::string& path) {
  return {2, kColumn + "Remove directory " + Quoted(path)};
}
CLine FoundFile(const std::string& path) { return {2, kColumn + "Found file: " + Quoted(path)}; }
CLine RemoveFileOk(const std::string& path) {
  return {3, kColumn + "Remove file " + Quoted(path) + " OK!"};
}
CLine FoundDir(const std::string& path) { return {2, kColumn + "Found dir: " + Quoted(path)}; }
CLine RemoveDirectoryOk(const std::string& path) {
  return {3, kColumn + "Remove directory " + Quoted(path) + " OK!"};
}
CLine RemoveParent(const std::string& base) {
  return {3, kColumn + "Remove directory parent " + Quoted(base)};
}
CLine RemoveParentOk(const std::string& base) {
  return {3, kColumn + "Remove directory parent " + Quoted(base) + " OK!"};
}
CLine ParentError(const std::string& base, int error) {
  return {1, kColumn + "ERROR cannot remove parent directory " + Quoted(base) + ": " +
                 std::strerror(error) + "\n"};
}
CLine DirectoryError(const std::string& path, int error) {
  return {1, kColumn + "ERROR cannot remove directory " + Quoted(path) + ": " +
                 std::strerror(error) + "\n"};
}
CLine FileError(const std::string& path, int error) {
  return {
      1, kColumn + "ERROR cannot remove file " + Quoted(path) + ": " + std::strerror(error) + "\n"};
}
CLine ScandirError(int error) {
  // The line names the (still empty) entry path, not the directory.
  return {3,
          kColumn + "scandir for directory \"\" failed; ## ERROR: " + std::strerror(error) + "\n"};
}

void MakeFile(const std::string& path) {
  std::ofstream out(path);
  out << "data";
}

void MakeDir(const std::string& path) { ASSERT_EQ(mkdir(path.c_str(), 0755), 0) << path; }

class DirectoryRemoval : public ::testing::Test {
 protected:
  void SetUp() override {
    m_Root = m_Temp.Path();
    m_Dir = m_Root + "/d";
    halvane::TraceToMemory();
    halvane::SetTraceSwitch(true);
    halvane::SetTraceLevel(5);
    halvane::TakeTrace();
  }

  void TearDown() override {
    Restore();
    halvane::SetTraceLevel(5);
  }

  // Makes path impossible to delete: without root through a directory
  // without write permission, as root (which permissions do not stop)
  // through the immutable attribute. Returns the errno unlink then reports,
  // or 0 when neither works here.
  int MakeUndeletable(const std::string& path, const std::string& directory) {
    if (geteuid() != 0) {
      if (chmod(directory.c_str(), 0555) != 0) return 0;
      m_ReadOnlyDirs.push_back(directory);
      return EACCES;
    }
    const int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0) return 0;
    int flags = 0;
    bool done = ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
    if (done) {
      flags |= FS_IMMUTABLE_FL;
      done = ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
    }
    close(fd);
    if (!done) return 0;
    m_Immutable.push_back(path);
    return EPERM;
  }

  void Restore() {
    for (const std::string& path : m_Immutable) {
      const int fd = open(path.c_str(), O_RDONLY);
      if (fd < 0) continue;
      int flags = 0;
      if (ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0) {
        flags &= ~FS_IMMUTABLE_FL;
        ioctl(fd, FS_IOC_SETFLAGS, &flags);
      }
      close(fd);
    }
    m_Immutable.clear();
    for (const std::string& dir : m_ReadOnlyDirs) chmod(dir.c_str(), 0755);
    m_ReadOnlyDirs.clear();
  }

  // Builds the tree afresh for every trace level 1..5, removes it and checks
  // result, trace (each line only from its own level on) and what is left.
  void RunAtEveryLevel(const std::function<void()>& build, int removeParent, int expectedResult,
                       const std::vector<CLine>& lines, const std::function<void()>& check) {
    for (unsigned int level = 1; level <= 5; ++level) {
      SCOPED_TRACE("trace level " + std::to_string(level));
      Restore();
      std::error_code ignored;
      fs::remove_all(m_Dir, ignored);
      build();
      halvane::SetTraceLevel(level);
      halvane::TakeTrace();
      EXPECT_EQ(CDirectory::RemoveDir(m_Dir.c_str(), removeParent), expectedResult);
      EXPECT_EQ(halvane::TakeTrace(), Expected(lines, level));
      check();
    }
  }

  korvex_test::CTempDir m_Temp{"korvex-dirtest"};  // removed after TearDown restored it
  std::string m_Root;
  std::string m_Dir;
  std::vector<std::string> m_Immutable;
  std::vector<std::string> m_ReadOnlyDirs;
};

TEST_F(DirectoryRemoval, NullPathReturnsZeroAfterTheFirstTrace) {
  EXPECT_EQ(CDirectory::RemoveDir(nullptr, 1), 0);
  EXPECT_EQ(halvane::TakeTrace(), kColumn + "Remove directory \"(null)\"");
}

TEST_F(DirectoryRemoval, EmptyPathReturnsZeroAfterTheFirstTrace) {
  EXPECT_EQ(CDirectory::RemoveDir("", 1), 0);
  EXPECT_EQ(halvane::TakeTrace(), kColumn + "Remove directory \"\"");
}

TEST_F(DirectoryRemoval, SingleFileWithParentRemovesAllAndReportsTheParentErrorWithResultZero) {
  const std::string file = m_Dir + "/a";
  const std::string base = m_Dir + "/";
  RunAtEveryLevel(
      [&] {
        MakeDir(m_Dir);
        MakeFile(file);
      },
      1, 0,
      {RemoveDirectory(m_Dir), FoundFile(file), RemoveFileOk(file), RemoveParent(base),
       ParentError(base, 0)},
      [&] {
        EXPECT_FALSE(fs::exists(file));
        EXPECT_FALSE(fs::exists(m_Dir));
        EXPECT_TRUE(fs::exists(m_Root));
      });
}

TEST_F(DirectoryRemoval, SingleFileWithoutParentKeepsTheDirectoryWithResultOne) {
  const std::string file = m_Dir + "/a";
  RunAtEveryLevel(
      [&] {
        MakeDir(m_Dir);
        MakeFile(file);
      },
      0, 1, {RemoveDirectory(m_Dir), FoundFile(file), RemoveFileOk(file)},
      [&] {
        EXPECT_FALSE(fs::exists(file));
        EXPECT_TRUE(fs::is_directory(m_Dir));
        EXPECT_TRUE(fs::is_empty(m_Dir));
      });
}

TEST_F(DirectoryRemoval, HiddenFileIsKeptSoTheParentStaysAndTheResultIsOne) {
  const std::string hidden = m_Dir + "/.cache";
  const std::string file = m_Dir + "/b";
  const std::string base = m_Dir + "/";
  RunAtEveryLevel(
      [&] {
        MakeDir(m_Dir);
        MakeFile(hidden);
        MakeFile(file);
      },
      1, 1,
      {RemoveDirectory(m_Dir), FoundFile(file), RemoveFileOk(file), RemoveParent(base),
       RemoveParentOk(base)},
      [&] {
        EXPECT_TRUE(fs::exists(hidden));
        EXPECT_FALSE(fs::exists(file));
        EXPECT_TRUE(fs::is_directory(m_Dir));
      });
}

TEST_F(DirectoryRemoval, CompletelyRemovedSubdirectoryStopsTheCaller) {
  const std::string sub = m_Dir + "/s";
  const std::string subFile = sub + "/f";
  const std::string later = m_Dir + "/z";
  RunAtEveryLevel(
      [&] {
        MakeDir(m_Dir);
        MakeDir(sub);
        MakeFile(subFile);
        MakeFile(later);
      },
      1, 0,
      {RemoveDirectory(m_Dir), FoundDir(sub), RemoveDirectory(sub), FoundFile(subFile),
       RemoveFileOk(subFile), RemoveParent(sub + "/"), ParentError(sub + "/", 0),
       DirectoryError(sub, 0)},
      [&] {
        EXPECT_FALSE(fs::exists(sub));
        EXPECT_TRUE(fs::exists(later)) << "z must not be visited";
        EXPECT_TRUE(fs::is_directory(m_Dir));
      });
}

TEST_F(DirectoryRemoval, SubdirectoryThatStaysCountsAsSuccessAndTheCallerGoesOn) {
  const std::string sub = m_Dir + "/s";
  const std::string hidden = sub + "/.keep";
  const std::string later = m_Dir + "/z";
  const std::string base = m_Dir + "/";
  RunAtEveryLevel(
      [&] {
        MakeDir(m_Dir);
        MakeDir(sub);
        MakeFile(hidden);
        MakeFile(later);
      },
      1, 1,
      {RemoveDirectory(m_Dir), FoundDir(sub), RemoveDirectory(sub), RemoveParent(sub + "/"),
       RemoveParentOk(sub + "/"), RemoveDirectoryOk(sub), FoundFile(later), RemoveFileOk(later),
       RemoveParent(base), RemoveParentOk(base)},
      [&] {
        EXPECT_TRUE(fs::exists(hidden));
        EXPECT_FALSE(fs::exists(later));
        EXPECT_TRUE(fs::is_directory(m_Dir));
      });
}

TEST_F(DirectoryRemoval, HiddenDirectoryIsNeverEntered) {
  const std::string hiddenDir = m_Dir + "/.git";
  const std::string inside = hiddenDir + "/config";
  const std::string base = m_Dir + "/";
  RunAtEveryLevel(
      [&] {
        MakeDir(m_Dir);
        MakeDir(hiddenDir);
        MakeFile(inside);
      },
      1, 1, {RemoveDirectory(m_Dir), RemoveParent(base), RemoveParentOk(base)},
      [&] { EXPECT_TRUE(fs::exists(inside)); });
}

TEST_F(DirectoryRemoval, NestedEmptyDirectoryWithoutParentFlagIsRemovedAndStopsTheCaller) {
  // The child is removed with its parent flag set, so its successful rmdir
  // is judged as a failure by the caller.
  const std::string sub = m_Dir + "/s";
  RunAtEveryLevel(
      [&] {
        MakeDir(m_Dir);
        MakeDir(sub);
      },
      0, 0,
      {RemoveDirectory(m_Dir), FoundDir(sub), RemoveDirectory(sub), RemoveParent(sub + "/"),
       ParentError(sub + "/", 0), DirectoryError(sub, 0)},
      [&] {
        EXPECT_FALSE(fs::exists(sub));
        EXPECT_TRUE(fs::is_directory(m_Dir));
      });
}

TEST_F(DirectoryRemoval, PathThatIsNotADirectoryFailsInScandirWithAnEmptyName) {
  const std::string file = m_Root + "/plain";
  MakeFile(file);
  EXPECT_EQ(CDirectory::RemoveDir(file.c_str(), 1), 0);
  EXPECT_EQ(halvane::TakeTrace(), Expected({RemoveDirectory(file), ScandirError(ENOTDIR)}, 5));
  EXPECT_TRUE(fs::exists(file));
}

TEST_F(DirectoryRemoval, MissingPathFailsInScandir) {
  const std::string missing = m_Root + "/missing";
  halvane::SetTraceLevel(2);
  EXPECT_EQ(CDirectory::RemoveDir(missing.c_str(), 0), 0);
  EXPECT_EQ(halvane::TakeTrace(), Expected({RemoveDirectory(missing), ScandirError(ENOENT)}, 2));
  halvane::SetTraceLevel(3);
  EXPECT_EQ(CDirectory::RemoveDir(missing.c_str(), 0), 0);
  EXPECT_EQ(halvane::TakeTrace(), Expected({RemoveDirectory(missing), ScandirError(ENOENT)}, 3));
}

TEST_F(DirectoryRemoval, FileThatCannotBeDeletedStopsWithoutTouchingTheDirectory) {
  const std::string stuck = m_Dir + "/a";
  const std::string later = m_Dir + "/b";
  MakeDir(m_Dir);
  MakeFile(stuck);
  MakeFile(later);
  const int error = MakeUndeletable(stuck, m_Dir);
  if (error == 0) {
    GTEST_SKIP() << "running as root on a file system without the immutable attribute (or "
                    "without CAP_LINUX_IMMUTABLE): no way to make unlink fail here";
  }
  EXPECT_EQ(CDirectory::RemoveDir(m_Dir.c_str(), 1), 0);
  EXPECT_EQ(halvane::TakeTrace(),
            Expected({RemoveDirectory(m_Dir), FoundFile(stuck), FileError(stuck, error)}, 5));
  Restore();
  EXPECT_TRUE(fs::exists(stuck));
  EXPECT_TRUE(fs::exists(later)) << "entries after the failing one are not visited";

  // Level 1 shows only the error line.
  ASSERT_EQ(MakeUndeletable(stuck, m_Dir), error);
  halvane::SetTraceLevel(1);
  EXPECT_EQ(CDirectory::RemoveDir(m_Dir.c_str(), 1), 0);
  EXPECT_EQ(halvane::TakeTrace(), FileError(stuck, error).m_Text);
}

TEST_F(DirectoryRemoval, SymbolicLinkToAFileIsRemovedButItsTargetIsNot) {
  const std::string target = m_Root + "/target";
  const std::string link = m_Dir + "/link";
  RunAtEveryLevel(
      [&] {
        MakeFile(target);
        MakeDir(m_Dir);
        ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
      },
      0, 1, {RemoveDirectory(m_Dir), FoundFile(link), RemoveFileOk(link)},
      [&] {
        EXPECT_FALSE(fs::exists(fs::symlink_status(link)));
        EXPECT_TRUE(fs::exists(target));
      });
}

TEST_F(DirectoryRemoval, DanglingLinkIsRemovedAsALinkAndAPipeIsLeftAlone) {
  const std::string dangling = m_Dir + "/dangling";
  const std::string pipe = m_Dir + "/pipe";
  const std::string base = m_Dir + "/";
  RunAtEveryLevel(
      [&] {
        MakeDir(m_Dir);
        ASSERT_EQ(symlink((m_Root + "/nowhere").c_str(), dangling.c_str()), 0);
        ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
      },
      1, 1,
      {RemoveDirectory(m_Dir), FoundFile(dangling), RemoveFileOk(dangling), RemoveParent(base),
       RemoveParentOk(base)},
      [&] {
        EXPECT_FALSE(fs::exists(fs::symlink_status(dangling)));
        EXPECT_TRUE(fs::is_fifo(pipe));
      });
}

// Fills directory with two files and a subdirectory holding one more; the
// names of all three files, for checking that they survive.
std::vector<std::string> MakeFilledDirectory(const std::string& directory) {
  MakeDir(directory);
  MakeDir(directory + "/sub");
  std::vector<std::string> files = {directory + "/f1", directory + "/f2", directory + "/sub/f3"};
  for (const std::string& file : files) MakeFile(file);
  return files;
}

void ExpectAllExist(const std::vector<std::string>& files) {
  for (const std::string& file : files) EXPECT_TRUE(fs::is_regular_file(file)) << file;
}

TEST_F(DirectoryRemoval, LinkToADirectoryHoldingFilesIsRemovedAsALinkAndTheFilesStay) {
  // The target is a hidden directory of the tree itself: never entered on
  // its own account, so only following the link could reach its files.
  const std::string hidden = m_Dir + "/.data";
  const std::string link = m_Dir + "/link";
  const std::string base = m_Dir + "/";
  std::vector<std::string> files;
  RunAtEveryLevel(
      [&] {
        MakeDir(m_Dir);
        files = MakeFilledDirectory(hidden);
        ASSERT_EQ(symlink(hidden.c_str(), link.c_str()), 0);
      },
      1, 1,
      {RemoveDirectory(m_Dir), FoundFile(link), RemoveFileOk(link), RemoveParent(base),
       RemoveParentOk(base)},
      [&] {
        EXPECT_FALSE(fs::exists(fs::symlink_status(link)));
        ExpectAllExist(files);
      });
}

TEST_F(DirectoryRemoval, LinkToADirectoryOutsideTheTreeIsRemovedAsALinkAndTheTargetStays) {
  const std::string outside = m_Root + "/outside";
  const std::string link = m_Dir + "/link";
  const std::string later = m_Dir + "/z";
  const std::string base = m_Dir + "/";
  std::vector<std::string> files;
  RunAtEveryLevel(
      [&] {
        std::error_code ignored;
        fs::remove_all(outside, ignored);
        files = MakeFilledDirectory(outside);
        MakeDir(m_Dir);
        ASSERT_EQ(symlink(outside.c_str(), link.c_str()), 0);
        MakeFile(later);
      },
      1, 0,
      {RemoveDirectory(m_Dir), FoundFile(link), RemoveFileOk(link), FoundFile(later),
       RemoveFileOk(later), RemoveParent(base), ParentError(base, 0)},
      [&] {
        EXPECT_FALSE(fs::exists(m_Dir));
        EXPECT_TRUE(fs::is_directory(outside + "/sub"));
        ExpectAllExist(files);
      });
}

TEST_F(DirectoryRemoval, LinkToAFileInASubdirectoryIsRemovedAsALink) {
  // Links are not followed at any depth: the link inside s goes, the file
  // it names (outside the tree) stays, and s itself is removed completely.
  const std::string target = m_Root + "/target";
  const std::string sub = m_Dir + "/s";
  const std::string link = sub + "/link";
  RunAtEveryLevel(
      [&] {
        MakeFile(target);
        MakeDir(m_Dir);
        MakeDir(sub);
        ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
      },
      0, 0,
      {RemoveDirectory(m_Dir), FoundDir(sub), RemoveDirectory(sub), FoundFile(link),
       RemoveFileOk(link), RemoveParent(sub + "/"), ParentError(sub + "/", 0),
       DirectoryError(sub, 0)},
      [&] {
        EXPECT_FALSE(fs::exists(sub));
        EXPECT_TRUE(fs::is_regular_file(target));
      });
}

TEST_F(DirectoryRemoval, TopLevelLinkIsFollowedToTheDirectoryItNames) {
  // The top-level path may be a link (a data directory moved elsewhere): its
  // contents are removed. Its final rmdir through "link/" fails, which the
  // reversed judgement reports as OK with the result 1; the link stays.
  const std::string real = m_Root + "/real";
  const std::string file = real + "/a";
  const std::string link = m_Dir;
  const std::string base = link + "/";
  RunAtEveryLevel(
      [&] {
        std::error_code ignored;
        fs::remove_all(real, ignored);
        MakeDir(real);
        MakeFile(file);
        ASSERT_EQ(symlink(real.c_str(), link.c_str()), 0);
      },
      1, 1,
      {RemoveDirectory(link), FoundFile(base + "a"), RemoveFileOk(base + "a"), RemoveParent(base),
       RemoveParentOk(base)},
      [&] {
        EXPECT_TRUE(fs::is_symlink(link));
        EXPECT_TRUE(fs::is_directory(real));
        EXPECT_FALSE(fs::exists(file));
      });
}

TEST_F(DirectoryRemoval, EntriesAreVisitedInSortedOrder) {
  const std::string b = m_Dir + "/b";
  const std::string a = m_Dir + "/a";
  const std::string upper = m_Dir + "/C";
  MakeDir(m_Dir);
  MakeFile(b);
  MakeFile(a);
  MakeFile(upper);
  halvane::SetTraceLevel(2);
  EXPECT_EQ(CDirectory::RemoveDir(m_Dir.c_str(), 0), 1);
  EXPECT_EQ(halvane::TakeTrace(),
            Expected({RemoveDirectory(m_Dir), FoundFile(upper), FoundFile(a), FoundFile(b)}, 2));
}

TEST_F(DirectoryRemoval, TraceSwitchOffRemovesSilently) {
  MakeDir(m_Dir);
  MakeFile(m_Dir + "/a");
  halvane::SetTraceSwitch(false);
  const int result = CDirectory::RemoveDir(m_Dir.c_str(), 1);
  halvane::SetTraceSwitch(true);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(halvane::TakeTrace(), "");
  EXPECT_FALSE(fs::exists(m_Dir));
}

}  // namespace
