/// Runs in a Mac root: copies a bundle as the helper does and as others do, and deletes the copies,
/// in rounds in which the contenders take turns. Prints "CASE/CONTENDER SECONDS" lines; the driver
/// is bundle_bench.py.
///
///     bundle_probe ROUNDS FILES BYTES CASE DELETE_CASE [keep]
///
/// With `keep` all copies are made before the first is deleted: a file system like ext4 looks long for
/// room for a new file beside many that have just gone, which would fall to whoever copies next.

#include <fcntl.h>
#include <ftw.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "bench/probe.h"
#include "front/session_folder.h"
#include "muro/sys/files.h"
#include "muro/sys/unique_fd.h"

extern char** environ;
namespace fs = std::filesystem;

namespace {

using bench::seconds;

constexpr const char* kBundle = "/Applications/Korvel.app";
constexpr uid_t kRoot = 0;
constexpr gid_t kAdmin = 80;

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "bundle_probe: %s\n", what.c_str());
  std::exit(1);
}

void run(std::vector<std::string> words) {
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  pid_t pid = 0;
  int status = 0;
  if (::posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0 ||
      ::waitpid(pid, &status, 0) != pid || status != 0)
    fail(words[0] + " failed");
}

// The bundle: many small files and a few large ones in nested folders, and some links.

void write_file(const std::string& path, std::size_t size, std::mt19937_64& random) {
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(size));
}

std::vector<std::string> make_folders(int count, std::mt19937_64& random) {
  std::vector<std::string> folders = {kBundle};
  fs::create_directories(kBundle);
  while (static_cast<int>(folders.size()) < count) {
    const std::string above = folders[random() % folders.size()];
    folders.push_back(above + "/folder" + std::to_string(folders.size()));
    fs::create_directory(folders.back());
  }
  return folders;
}

void make_bundle(int files, double bytes) {
  std::mt19937_64 random(1);
  std::lognormal_distribution<double> weight(0, 1.6);
  std::vector<double> weights(static_cast<std::size_t>(files));
  double sum = 0;
  for (double& each : weights) sum += each = weight(random);
  const std::vector<std::string> folders = make_folders(files / 14 + 1, random);
  for (int i = 0; i < files; ++i) {
    const std::string name = "resource" + std::to_string(i);
    const std::string path = folders[random() % folders.size()] + "/" + name;
    const double share = weights[static_cast<std::size_t>(i)] / sum;
    write_file(path, static_cast<std::size_t>(bytes * share), random);
    if (i % 50 == 0) fs::create_symlink(name, path + ".link");
  }
}

// The copies. Each contender's is at the place where the helper's would be.

struct contender {
  const char* name;
  void (*act)(const std::string& copy, const std::string& id);
};

void copy_by_helper(const std::string&, const std::string& id) {
  if (!moveAppBundle(kBundle, id)) fail("the helper's copy failed");
}

void copy_by_library(const std::string& copy, const std::string&) {
  const auto open_to_all = [](const fs::path& path) {
    if (::lchown(path.c_str(), kRoot, kAdmin) != 0) fail("lchown failed");
    if (!fs::is_symlink(path)) fs::permissions(path, fs::perms::all);
  };
  fs::copy(kBundle, copy, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
  open_to_all(copy);
  for (const auto& entry : fs::recursive_directory_iterator(copy)) {
    if (::lchown(entry.path().c_str(), kRoot, kAdmin) != 0) fail("lchown failed");
    if (!entry.is_symlink()) fs::permissions(entry.path(), fs::perms::all);
  }
}

void copy_by_cp(const std::string& copy, const std::string&) {
  run({"cp", "-a", kBundle, copy});
  run({"chown", "-R", "root:admin", copy});
  run({"chmod", "-R", "0777", copy});
}

void copy_by_rsync(const std::string& copy, const std::string&) {
  run({"rsync", "-a", "--chown=root:admin", "--chmod=0777", std::string(kBundle) + "/", copy});
}

void delete_by_helper(const std::string& copy, const std::string&) {
  muro::delete_recursive(copy);
}

void delete_by_library(const std::string& copy, const std::string&) {
  fs::remove_all(copy);
}

void delete_by_rm(const std::string& copy, const std::string&) {
  run({"rm", "-rf", copy});
}

void delete_by_nftw(const std::string& copy, const std::string&) {
  const auto remove = [](const char* path, const struct stat*, int, FTW*) {
    return std::remove(path);
  };
  if (::nftw(copy.c_str(), remove, 64, FTW_DEPTH | FTW_PHYS) != 0) fail("nftw failed");
}

const std::vector<contender> kCopies = {{"ours", copy_by_helper},
                                        {"std::filesystem", copy_by_library},
                                        {"cp", copy_by_cp},
                                        {"rsync", copy_by_rsync}};
const std::vector<contender> kDeletions = {{"ours", delete_by_helper},
                                           {"std::filesystem", delete_by_library},
                                           {"rm", delete_by_rm},
                                           {"nftw", delete_by_nftw}};

// What came out

std::string content_of(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

bool is_same(const fs::path& from, const fs::path& to) {
  struct stat status {};
  if (::lstat(to.c_str(), &status) != 0) return false;
  if (fs::is_symlink(from))
    return fs::is_symlink(to) && fs::read_symlink(from) == fs::read_symlink(to);
  if (status.st_uid != kRoot || status.st_gid != kAdmin || (status.st_mode & 07777) != 0777)
    return false;
  return fs::is_directory(from) ? fs::is_directory(to) : content_of(from) == content_of(to);
}

void check_copy(const std::string& copy, const char* name) {
  long entries = 0;
  for (const auto& entry : fs::recursive_directory_iterator(kBundle)) {
    if (!is_same(entry.path(), copy / entry.path().lexically_relative(kBundle)))
      fail(std::string("wrong: another outcome than the others': ") + name);
    ++entries;
  }
  const auto found = std::distance(fs::recursive_directory_iterator(copy), {});
  if (found != entries || !is_same(kBundle, copy)) fail(std::string("wrong: ") + name);
}

// A round: contenders take turns at being first, and every deletion gets everybody's copies.

std::string copy_of(const std::string& id) {
  return sessionFolder(id) + "/app/Korvel.app";
}

std::string id_of(int round, std::size_t number) {
  return std::to_string(round) + "-" + std::to_string(number);
}

// What the contender before has left to be written is not the next one's burden.
void settle(const std::string& folder) {
  const muro::unique_fd opened(::open(folder.c_str(), O_RDONLY | O_CLOEXEC));
  if (::syncfs(opened.get()) != 0) fail("syncfs failed");
}

void copy_all(int round, const std::string& row) {
  for (std::size_t i = 0; i < kCopies.size(); ++i) {
    const std::size_t number = (i + static_cast<std::size_t>(round)) % kCopies.size();
    const std::string id = id_of(round, number);
    if (!createFolder(sessionFolder(id) + "/app", 0777)) fail("no folder for the copies");
    settle(sessionFolder(id));
    const std::string copy = copy_of(id);
    const double took = seconds([&] { kCopies[number].act(copy, id); });
    std::printf("%s/%s %.6f\n", row.c_str(), kCopies[number].name, took);
    if (round == 0) check_copy(copy, kCopies[number].name);
  }
}

void delete_all(int round, const std::string& row) {
  for (std::size_t i = 0; i < kDeletions.size(); ++i) {
    const std::size_t number = (i + static_cast<std::size_t>(round)) % kDeletions.size();
    const std::string id = id_of(round, (i + static_cast<std::size_t>(round) / 4) % kCopies.size());
    const std::string copy = copy_of(id);
    settle(sessionFolder(id));
    const double took = seconds([&] { kDeletions[number].act(copy, id); });
    std::printf("%s/%s %.6f\n", row.c_str(), kDeletions[number].name, took);
    if (fs::exists(fs::symlink_status(copy)))
      fail(std::string("wrong: ") + kDeletions[number].name);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6 && argc != 7) fail("wrong use");
  const int rounds = std::atoi(argv[1]);
  const bool keeps = argc == 7 && std::strcmp(argv[6], "keep") == 0;
  make_bundle(std::atoi(argv[2]), std::atof(argv[3]));
  for (int round = 0; round < rounds; ++round) {
    copy_all(round, argv[4]);
    if (!keeps) delete_all(round, argv[5]);
  }
  for (int round = 0; keeps && round < rounds; ++round) delete_all(round, argv[5]);
  return 0;
}
