// Archives by the program with which the daemon unpacks them.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "tools/packages/archives.h"

namespace fs = std::filesystem;

namespace {

constexpr char UNZIP[] = "/usr/bin/unzip";
constexpr int UNZIP_NO_MEMBER = 11;
constexpr int UNZIP_DISK_FULL = 50;

// Runs it on `zip` without a shell; its output goes to `output`. Returns its exit code.
int run_unzip(const fs::path& zip, std::vector<std::string> arguments, int output,
              const char* program = UNZIP) {
    // By descriptor, since unzip takes some signs in a name for a pattern.
    const file_ptr archive = open_file(zip);
    const int archive_fd = fileno(archive.get());
    arguments.insert(arguments.begin() + 1, "/proc/self/fd/3");
    std::vector<char*> words = {const_cast<char*>(program)};
    for (std::string& argument : arguments) words.push_back(argument.data());
    words.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, output, 1);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, archive_fd, 3);
    // Whoever interrupts the checks is to reach it too.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t nothing;
    sigemptyset(&nothing);
    posix_spawnattr_setsigmask(&attributes, &nothing);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    pid_t pid = -1;
    const int error = posix_spawnp(&pid, program, &actions, &attributes, words.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0)
        throw failure(std::string(program) + ", with which devices unpack, cannot be started (" +
                      strerror(error) + "); install it");
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) continue;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

file_ptr open_nowhere() {
    return file_ptr(fopen("/dev/null", "we"));
}

[[noreturn]] void refuse(int exit_code) {
    throw bad_input("it is no zip archive, or damaged (unzip ends with " + std::to_string(exit_code) + ")");
}

bool has_member(const fs::path& zip, const std::string& member) {
    const file_ptr nowhere = open_nowhere();
    return run_unzip(zip, {"-p", member}, fileno(nowhere.get())) == 0;
}

void extract_member(const fs::path& zip, const std::string& member, const fs::path& destination) {
    file_ptr stream = create_file(destination, 0600);
    const int exit_code = run_unzip(zip, {"-p", member}, fileno(stream.get()));
    finish_file(std::move(stream), destination);
    if (exit_code == UNZIP_NO_MEMBER) throw bad_input("it has no member " + member + " at its root");
    if (exit_code != 0) refuse(exit_code);
}

unpacked_zip extract_all(const fs::path& zip, const fs::path& folder) {
    const file_ptr nowhere = open_nowhere();
    const int exit_code = run_unzip(zip, {"-o", "-d", folder}, fileno(nowhere.get()));
    if (exit_code != 0) refuse(exit_code);
    unpacked_zip unpacked;
    std::vector<fs::path> links;
    for (const fs::directory_entry& item : fs::recursive_directory_iterator(folder)) {
        if (item.is_symlink()) {
            links.push_back(item.path());
        } else if (item.is_regular_file()) {
            ++unpacked.files;
        }
    }
    for (const fs::path& link : links) {
        unpacked.links.push_back(link.lexically_relative(folder));
        fs::remove(link);
    }
    return unpacked;
}

void test(const fs::path&, const char*) {}  // it is unzip that unpacks here

}  // namespace

void test_by_unpacking(const fs::path& zip, const char* member) {
    const work_folder work;
    const file_ptr nowhere = open_nowhere();
    // Never asked for at the terminal: a device has no password to give either.
    std::vector<std::string> arguments = {"-oPnone", "-d", work / ""};
    if (member != nullptr) arguments.insert(arguments.begin() + 1, member);
    const int exit_code = run_unzip(zip, arguments, fileno(nowhere.get()), "unzip");
    if (exit_code == UNZIP_DISK_FULL)
        throw failure("There is no room to unpack in; set TMPDIR to a folder with room");
    if (exit_code != 0) throw bad_input("unzip refuses it, exit code " + std::to_string(exit_code));
}

const archive_reader UNZIP_READER = {has_member, extract_member, extract_all, test};
