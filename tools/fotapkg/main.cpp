// fotapkg: makes and checks what the update daemon takes, on the build host.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "bundle.h"
#include "inspect.h"
#include "package.h"
#include "tools/common/files.h"
#include "tools/common/output.h"
#include "tools/packages/keys.h"
#include "tools/packages/pieces.h"
#include "verify.h"

namespace {

constexpr int EXIT_USAGE = 2;

struct arguments {
    std::string folder;
    int bits = 2048;
    bool force = false;
    package_options package;
    bundle_options bundle;
    std::string checked_file;
    check_options checks;
    inspect_options inspection;
    bool as_json = false;
};

template <typename T>
CLI::Option* add(CLI::App* command, const char* name, T& value, const char* type, const std::string& text) {
    return command->add_option(name, value, text)->type_name(type);
}

template <typename T>
void add_limit(CLI::App* command, T& limit, const std::string& text) {
    add(command, "--limit", limit, "BYTES", "Limit of the devices, their MaxPkgSizeAllowed" + text)
        ->check(CLI::Range(uint64_t{1}, MAX_PACKAGE_BYTES));
}

void add_keys_command(CLI::App& app, arguments& args) {
    CLI::App* command = app.add_subcommand("keys", "Make the keys and certificates of devices and build");
    add(command, "DIR", args.folder, "", "Folder to put them in; made when missing")->required();
    add(command, "--bits", args.bits, "BITS", "Size of the RSA keys")
        ->check(CLI::Range(2048, 4096))
        ->capture_default_str();
    command->add_flag("--force", args.force, "Overwrite keys that are there");
    command->callback([&args] { make_keys(args.folder, args.bits, args.force); });
}

void add_package_command(CLI::App& app, arguments& args) {
    package_options& options = args.package;
    const CLI::Validator version(version_problem, ""), line(line_problem, "");
    CLI::App* command = app.add_subcommand("package", "Make an update package");
    add(command, "--content", options.content, "DIR", "Files to install")->required();
    add(command, "--keys", options.keys, "DIR", "Folder made by `fotapkg keys`")->required();
    add(command, "--source", options.sources, "VERSION",
        "Versions that may be updated, as the device reports them")
        ->required()
        ->check(version);
    add(command, "--target", options.target, "VERSION", "Version that the package brings")
        ->required()
        ->check(version);
    add(command, "--description", options.description, "TEXT", "One line that users see")
        ->required()
        ->check(line);
    add(command, "--full-image", options.full_image, "FILE",
        "Script that installs the content as a full image, in the installer's place");
    add(command, "--pre-install", options.pre_install, "FILE", "Script run just before the installation");
    add(command, "--post-install", options.post_install, "FILE",
        "Script run after a successful installation");
    add(command, "--post-install-failed", options.post_install_failed, "FILE",
        "Script run after a failed one");
    add(command, "--estimate", options.estimate_secs, "SECS", "Estimated installation time");
    add_limit(command, options.limit, ": no larger package is made");
    command->add_flag("--store", options.store,
                      "Do not deflate what is in the package, which is a third larger then");
    add(command, "-o,--output", options.output, "FILE", "The package, such as upgrade.zip")->required();
    command->callback([&options] { make_package(options); });
}

void add_bundle_command(CLI::App& app, arguments& args) {
    bundle_options& options = args.bundle;
    CLI::App* command = app.add_subcommand("bundle", "Cut a package into signed pieces, for side-loading");
    add(command, "PACKAGE", options.package, "", "The package")->required();
    add(command, "--keys", options.keys, "DIR", "Folder made by `fotapkg keys`")->required();
    CLI::Option* pieces = add(command, "--pieces", options.pieces, "N", "Number of pieces of equal size")
                              ->check(CLI::Range(uint64_t{1}, MAX_PIECES))
                              ->capture_default_str();
    add(command, "--piece-size", options.piece_size, "BYTES", "Size of all pieces but the last")
        ->check(CLI::Range(uint64_t{1}, MAX_PIECE_BYTES))
        ->excludes(pieces);
    add(command, "-o,--output", options.output, "FILE", "The bundle")->required();
    command->callback([&options] { make_bundle(options); });
}

void add_verify_command(CLI::App& app, arguments& args, bool& good) {
    check_options& options = args.checks;
    CLI::App* command = app.add_subcommand("verify", "Check a package or a bundle as a device does");
    add(command, "FILE", args.checked_file, "", "The package or bundle")->required();
    add(command, "--keys", options.keys, "DIR", "Folder made by `fotapkg keys`, with the device's key")
        ->required();
    command->add_flag("--bundle", options.is_bundle, "It is a bundle, though it may lack its list of pieces");
    add_limit(command, options.limit, ": check the size as the start of a side-load does");
    command->add_flag("--json", args.as_json, "Print the results as JSON");
    command->callback([&args, &good] { good = verify(args.checked_file, args.checks, args.as_json); });
}

void add_inspect_command(CLI::App& app, arguments& args, bool& good) {
    inspect_options& options = args.inspection;
    CLI::App* command = app.add_subcommand("inspect", "Show what is inside a package or a bundle");
    add(command, "FILE", options.file, "", "The package or bundle")->required();
    add(command, "--keys", options.keys, "DIR",
        "Folder with any of the files that `fotapkg keys` makes; without them the outer layers are shown");
    add_limit(command, options.limit, ", instead of their default");
    command->add_flag("--json", options.as_json, "Print everything as JSON");
    command->callback([&options, &good] { good = inspect(options); });
}

int run(int argc, char** argv) {
    CLI::App app("Makes and checks update packages and side-load bundles.", "fotapkg");
    app.require_subcommand(1);
    app.footer(R"(Example:
  fotapkg keys keys
  fotapkg package --content image --keys keys --source 1.0 1.1 --target 1.2 --description "Release 1.2" -o upgrade.zip
  fotapkg bundle upgrade.zip --keys keys -o bundle.zip
  fotapkg verify bundle.zip --keys keys
  fotapkg inspect upgrade.zip --keys keys
Exit status: 0 done, 1 failed or refused, 2 wrong usage.)");
    arguments args;
    bool good = true;
    add_keys_command(app, args);
    add_package_command(app, args);
    add_bundle_command(app, args);
    add_verify_command(app, args, good);
    add_inspect_command(app, args, good);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? EXIT_SUCCESS : EXIT_USAGE;
    }
    return good ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
    // Dates in archives are local times: the same input is to give the same archive everywhere.
    setenv("TZ", "UTC", 1);
    tzset();
    clean_up_on_signals();
    try {
        return run(argc, argv);
    } catch (const std::filesystem::filesystem_error& e) {
        fprintf(stderr, "fotapkg: Cannot use the path \"%s\": %s.\n", escaped(e.path1().string()).c_str(),
                e.code().message().c_str());
        return EXIT_FAILURE;
    } catch (const std::exception& e) {
        fprintf(stderr, "fotapkg: %s.\n", escaped(e.what()).c_str());
        return EXIT_FAILURE;
    }
}
