#include "muro/sys/xfile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "muro/core/exception.h"
#include "tests/support/temp_dir.h"

namespace {

using muro::xfile;

class xfile_test : public ::testing::Test {
 protected:
  test::temp_dir dir;
  const std::string path = dir / "file";
};

/// The text of what `action` throws; "" when it throws nothing.
template <class Action>
std::string thrown(Action action) {
  try {
    action();
  } catch (const muro::exception& e) {
    return e.description();
  }
  return "";
}

std::string reason(int error) {
  return std::to_string(error) + " (" + std::strerror(error) + ")";
}

bool exists(const std::string& path) {
  struct stat status;
  return ::lstat(path.c_str(), &status) == 0;
}

struct opened {
  std::string mode;
  int flags;
  bool operator==(const opened&) const = default;
};

opened mode_of(int m) {
  int flags = -1;
  const std::string mode = xfile::get_mode(m, flags);
  return {mode, flags};
}

}  // namespace

TEST(xfile_get_mode, has_a_mode_text_for_each_value) {
  EXPECT_EQ(mode_of(0), (opened{"rb", 0}));
  EXPECT_EQ(mode_of(1), (opened{"wb", 0}));
  EXPECT_EQ(mode_of(2), (opened{"ab", 0}));
  EXPECT_EQ(mode_of(3), (opened{"r+b", 0}));
  EXPECT_EQ(mode_of(4), (opened{"r+b", 0}));
}

TEST(xfile_get_mode, is_empty_for_any_other_value) {
  EXPECT_EQ(mode_of(5), (opened{"", 0}));
  EXPECT_EQ(mode_of(-1), (opened{"", 0}));
}

TEST_F(xfile_test, mode_0_reads) {
  test::write_file(path, "abc");
  xfile file(path, xfile::read_only, true);
  std::string text;
  EXPECT_TRUE(file.read(text));
  EXPECT_EQ(text, "abc");
}

TEST_F(xfile_test, mode_0_does_not_write) {
  test::write_file(path, "abc");
  xfile file(path, xfile::read_only, true);
  EXPECT_EQ(thrown([&] { file.write("x"); }), reason(EBADF) + " function=fwrite file=" + path);
}

TEST_F(xfile_test, mode_1_creates) {
  xfile(path, xfile::write_only, true).write("abc");
  EXPECT_EQ(test::read_file(path), "abc");
}

TEST_F(xfile_test, mode_1_truncates) {
  test::write_file(path, "long content");
  xfile(path, xfile::write_only, true).write("x");
  EXPECT_EQ(test::read_file(path), "x");
}

TEST_F(xfile_test, mode_2_creates_and_appends) {
  xfile(path, xfile::append, true).write("a");
  xfile(path, xfile::append, true).write("b");
  EXPECT_EQ(test::read_file(path), "ab");
}

TEST_F(xfile_test, mode_3_reads_and_writes_in_place) {
  test::write_file(path, "abc");
  xfile(path, xfile::read_write, true).write("X");
  EXPECT_EQ(test::read_file(path), "Xbc");
}

TEST_F(xfile_test, mode_3_fails_on_a_missing_file) {
  EXPECT_EQ(thrown([&] { xfile(path, xfile::read_write, true); }),
            reason(ENOENT) + " function=fopen file=" + path);
  EXPECT_FALSE(exists(path));
}

TEST_F(xfile_test, mode_4_creates_a_missing_file_and_opens_it_for_both) {
  xfile file(path, xfile::read_write_create, true);
  EXPECT_EQ(test::read_file(path), "");
  file.write("abc");
  std::rewind(file);
  std::string text;
  EXPECT_TRUE(file.read(text));
  EXPECT_EQ(text, "abc");
}

TEST_F(xfile_test, mode_4_keeps_the_content_of_an_existing_file) {
  test::write_file(path, "abc");
  xfile(path, xfile::read_write_create, true).write("X");
  EXPECT_EQ(test::read_file(path), "Xbc");
}

TEST_F(xfile_test, mode_4_creates_with_0666_under_the_umask) {
  const mode_t before = ::umask(007);
  const xfile file(path, xfile::read_write_create, true);
  ::umask(before);
  struct stat status;
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0660U);
}

TEST_F(xfile_test, mode_4_reports_the_second_failure_of_fopen) {
  const std::string nowhere = dir / "missing/file";
  EXPECT_EQ(thrown([&] { xfile(nowhere, xfile::read_write_create, true); }),
            reason(ENOENT) + " function=fopen file=" + nowhere);
}

TEST_F(xfile_test, mode_4_does_not_create_through_a_dangling_link) {
  ASSERT_EQ(::symlink((dir / "target").c_str(), path.c_str()), 0);
  EXPECT_NE(thrown([&] { xfile(path, xfile::read_write_create, true); }), "");
  EXPECT_FALSE(exists(dir / "target"));
}

TEST_F(xfile_test, only_mode_4_creates_for_update) {
  for (const auto mode : {xfile::read_only, xfile::read_write}) {
    EXPECT_FALSE(xfile(path, mode, false));
    EXPECT_FALSE(exists(path));
  }
}

TEST_F(xfile_test, an_unknown_mode_is_refused_with_the_errno_at_hand) {
  errno = EIO;
  EXPECT_EQ(thrown([&] { xfile(path, static_cast<xfile::mode>(9), true); }),
            reason(EIO) + " function=invalid_mode file=" + path);
  EXPECT_FALSE(exists(path));
}

TEST_F(xfile_test, a_failed_open_throws_number_text_call_and_path) {
  const std::string missing = dir / "x";
  EXPECT_EQ(thrown([&] { xfile(missing, xfile::read_only, true); }),
            "2 (No such file or directory) function=fopen file=" + missing);
}

TEST_F(xfile_test, errno_is_the_failed_calls_while_the_exception_is_caught) {
  try {
    xfile(dir / "x", xfile::read_only, true);
    FAIL();
  } catch (const muro::exception&) {
    EXPECT_EQ(errno, ENOENT);
  }
}

TEST_F(xfile_test, keeps_the_path_as_given) {
  EXPECT_EQ(xfile(dir / ".//x", xfile::read_only, false).path(), dir.path() + "/.//x");
}

TEST_F(xfile_test, a_path_with_a_zero_byte_is_not_cut_to_another_file) {
  test::write_file(path, "abc");
  const std::string longer = path + std::string("\0.dat", 5);
  EXPECT_EQ(thrown([&] { xfile(longer, xfile::read_only, true); }),
            reason(ENOENT) + " function=fopen file=" + longer);
  EXPECT_FALSE(xfile((dir / "new") + std::string(1, '\0'), xfile::read_write_create, false));
  EXPECT_FALSE(exists(dir / "new"));
}

TEST_F(xfile_test, without_reports_a_bad_path_leaves_a_silent_closed_object) {
  xfile file(dir / "missing/x", xfile::write_only, false);
  EXPECT_FALSE(file);
  EXPECT_EQ(static_cast<FILE*>(file), nullptr);
  std::string text = "kept";
  EXPECT_NO_THROW(file.write("abc"));
  EXPECT_NO_THROW(file.flush());
  EXPECT_NO_THROW(file.close());
  EXPECT_FALSE(file.read(text));
  EXPECT_EQ(text, "kept");
}

TEST_F(xfile_test, without_reports_a_full_disk_is_silent) {
  xfile file("/dev/full", xfile::write_only, false);
  EXPECT_NO_THROW(file.write("x"));
  EXPECT_NO_THROW(file.flush());
  EXPECT_NO_THROW(file.close());
}

TEST_F(xfile_test, an_open_object_is_true_and_gives_its_stream) {
  const xfile file(path, xfile::write_only, true);
  EXPECT_TRUE(file);
  EXPECT_NE(static_cast<FILE*>(file), nullptr);
}

TEST_F(xfile_test, its_descriptor_is_closed_on_exec) {
  const xfile file(path, xfile::write_only, true);
  EXPECT_EQ(::fcntl(::fileno(file), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST_F(xfile_test, reads_blocks_of_65536_bytes_and_then_false) {
  const std::string content(150000, 'x');
  test::write_file(path, content);
  xfile file(path, xfile::read_only, true);
  std::string text;
  std::vector<std::size_t> sizes;
  while (file.read(text)) sizes.push_back(text.size());
  EXPECT_EQ(sizes, (std::vector<std::size_t>{65536, 131072, 150000}));
  EXPECT_EQ(text, content);
  EXPECT_FALSE(file.read(text));
  EXPECT_EQ(text.size(), 150000U);
}

TEST_F(xfile_test, read_appends) {
  test::write_file(path, "def");
  std::string text = "abc";
  EXPECT_TRUE(xfile(path, xfile::read_only, true).read(text));
  EXPECT_EQ(text, "abcdef");
}

TEST_F(xfile_test, read_of_what_cannot_be_read_is_false_and_silent) {
  std::string text;
  EXPECT_FALSE(xfile(dir.path(), xfile::read_only, true).read(text));
  EXPECT_FALSE(xfile(path, xfile::write_only, true).read(text));
  EXPECT_EQ(text, "");
}

TEST_F(xfile_test, read_after_close_is_false) {
  test::write_file(path, "abc");
  xfile file(path, xfile::read_only, true);
  file.close();
  std::string text;
  EXPECT_FALSE(file.read(text));
}

TEST_F(xfile_test, writes_bytes_of_every_kind) {
  const std::string content("a\0\r\n\xff", 5);
  {
    xfile file(path, xfile::write_only, true);
    file.write(content);
    file.write("tail", 2);
    file.write("", 0);
  }
  EXPECT_EQ(test::read_file(path), content + "ta");
}

TEST_F(xfile_test, a_block_that_is_not_written_whole_fails_as_fwrite) {
  xfile file("/dev/full", xfile::write_only, true);
  EXPECT_EQ(thrown([&] { file.write(std::string(1 << 20, 'x')); }),
            "28 (No space left on device) function=fwrite file=/dev/full");
}

TEST_F(xfile_test, flush_hands_the_bytes_on) {
  xfile file(path, xfile::write_only, true);
  file.write("abc");
  EXPECT_EQ(test::read_file(path), "");
  file.flush();
  EXPECT_EQ(test::read_file(path), "abc");
}

TEST_F(xfile_test, a_failing_flush_fails_as_fflush) {
  xfile file("/dev/full", xfile::write_only, true);
  file.write("x");
  EXPECT_EQ(thrown([&] { file.flush(); }), reason(ENOSPC) + " function=fflush file=/dev/full");
}

TEST_F(xfile_test, a_failing_close_fails_as_fclose_and_leaves_the_object_closed) {
  xfile file("/dev/full", xfile::write_only, true);
  file.write("x");
  EXPECT_EQ(thrown([&] { file.close(); }), reason(ENOSPC) + " function=fclose file=/dev/full");
  EXPECT_FALSE(file);
  EXPECT_NO_THROW(file.close());
}

TEST_F(xfile_test, a_second_close_does_nothing) {
  xfile file(path, xfile::write_only, true);
  file.write("abc");
  file.close();
  EXPECT_FALSE(file);
  EXPECT_NO_THROW(file.close());
  EXPECT_EQ(test::read_file(path), "abc");
}

TEST_F(xfile_test, writing_to_a_closed_object_fails_as_fwrite) {
  xfile file(path, xfile::write_only, true);
  file.close();
  errno = EIO;
  EXPECT_EQ(thrown([&] { file.write("x"); }), reason(EIO) + " function=fwrite file=" + path);
}

TEST_F(xfile_test, flushing_a_closed_object_fails_as_fflush) {
  xfile file(path, xfile::write_only, true);
  file.close();
  errno = EIO;
  EXPECT_EQ(thrown([&] { file.flush(); }), reason(EIO) + " function=fflush file=" + path);
}

TEST_F(xfile_test, the_destructor_writes_what_is_buffered) {
  { xfile(path, xfile::write_only, true).write("abc"); }
  EXPECT_EQ(test::read_file(path), "abc");
}

TEST_F(xfile_test, the_destructor_is_silent_and_keeps_errno) {
  {
    xfile file("/dev/full", xfile::write_only, true);
    file.write("x");
    errno = EIO;
  }
  EXPECT_EQ(errno, EIO);
}

TEST_F(xfile_test, truncate_shortens_and_lengthens) {
  test::write_file(path, "abcdef");
  xfile file(path, xfile::read_write, true);
  EXPECT_EQ(file.truncate(3), 0);
  EXPECT_EQ(test::read_file(path), "abc");
  EXPECT_EQ(file.truncate(5), 0);
  EXPECT_EQ(test::read_file(path), std::string("abc\0\0", 5));
}

TEST_F(xfile_test, truncate_does_not_flush_first) {
  xfile file(path, xfile::write_only, true);
  file.write("abcdef");
  EXPECT_EQ(file.truncate(3), 0);
  EXPECT_EQ(test::read_file(path), std::string(3, '\0'));
  file.close();
  EXPECT_EQ(test::read_file(path), "abcdef");
}

TEST_F(xfile_test, a_failing_truncate_returns_the_result_and_does_not_throw) {
  test::write_file(path, "abc");
  xfile file(path, xfile::read_only, true);
  errno = 0;
  EXPECT_EQ(file.truncate(0), -1);
  EXPECT_EQ(errno, EINVAL);
  file.close();
  EXPECT_EQ(file.truncate(0), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST_F(xfile_test, put_file_writes_a_whole_file_anew) {
  muro::put_file(path, "long content");
  muro::put_file(path, std::string("a\0b", 3));
  EXPECT_EQ(test::read_file(path), std::string("a\0b", 3));
}

TEST_F(xfile_test, put_file_reports_a_failed_open) {
  const std::string nowhere = dir / "missing/x";
  EXPECT_EQ(thrown([&] { muro::put_file(nowhere, "x"); }),
            reason(ENOENT) + " function=fopen file=" + nowhere);
}

TEST_F(xfile_test, put_file_reports_what_only_the_close_finds_out) {
  EXPECT_EQ(thrown([] { muro::put_file("/dev/full", "x"); }),
            reason(ENOSPC) + " function=fclose file=/dev/full");
}

TEST_F(xfile_test, put_file_keeps_the_errno_of_a_failed_write_over_its_clean_up) {
  try {
    muro::put_file("/dev/full", std::string(1 << 20, 'x'));
    FAIL();
  } catch (const muro::exception&) {
    EXPECT_EQ(errno, ENOSPC);
  }
}

TEST(xfile_crc_table, holds_the_remainders_of_the_top_bit_first_polynomial) {
  xfile::init();
  const std::uint32_t* const table = xfile::crc_table();
  EXPECT_EQ(table[0], 0U);
  EXPECT_EQ(table[1], 0x04C11DB7U);
  EXPECT_EQ(table[128], 0x690CE0EEU);
  EXPECT_EQ(table[255], 0xB1F740B4U);
}

TEST(xfile_crc_table, gives_the_published_check_value) {
  // The catalogued CRC-32 with this polynomial, not reflected, start and final value all ones.
  xfile::init();
  std::uint32_t crc = 0xFFFFFFFF;
  for (const char digit : std::string("123456789")) {
    crc = crc << 8 ^ xfile::crc_table()[crc >> 24 ^ static_cast<unsigned char>(digit)];
  }
  EXPECT_EQ(~crc, 0xFC891918U);
}

TEST(xfile_crc_table, stays_when_filled_twice) {
  xfile::init();
  xfile::init();
  EXPECT_EQ(xfile::crc_table()[2], 0x09823B6EU);
}
