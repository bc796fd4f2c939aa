// fotapkg: makes and checks what the update daemon takes, on the build host.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "keys.h"
#include "package.h"
#include "support.h"
#include "verify.h"

namespace {

constexpr int EXIT_USAGE = 2;

struct arguments {
    std::string folder;
    int bits = 2048;
    bool force = false;
    package_options package;
    std::string checked_package, checked_keys;
};

template <typename T>
CLI::Option* add(CLI::App* command, const char* name, T& value, const char* type, const char* text) {
    return command->add_option(name, value, text)->type_name(type);
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
    const CLI::Validator version(version_problem, ""), description(description_problem, "");
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
        ->check(description);
    add(command, "--pre-install", options.pre_install, "FILE",
        "Script run just before the reboot into installation");
    add(command, "--post-install", options.post_install, "FILE",
        "Script run after a successful installation");
    add(command, "--post-install-failed", options.post_install_failed, "FILE",
        "Script run after a failed one");
    add(command, "--estimate", options.estimate_secs, "SECS", "Estimated installation time");
    add(command, "-o,--output", options.output, "FILE", "The package, such as upgrade.zip")->required();
    command->callback([&options] { make_package(options); });
}

void add_verify_command(CLI::App& app, arguments& args, bool& good) {
    CLI::App* command = app.add_subcommand("verify", "Check a package as a device does");
    add(command, "PACKAGE", args.checked_package, "", "The package")->required();
    add(command, "--keys", args.checked_keys, "DIR", "Folder made by `fotapkg keys`, with the device's key")
        ->required();
    command->callback([&args, &good] { good = verify_package(args.checked_package, args.checked_keys); });
}

int run(int argc, char** argv) {
    CLI::App app("Makes and checks update packages.", "fotapkg");
    app.require_subcommand(1);
    app.footer(R"(Example:
  fotapkg keys keys
  fotapkg package --content image --keys keys --source 1.0 1.1 --target 1.2 --description "Release 1.2" -o upgrade.zip
  fotapkg verify upgrade.zip --keys keys
Exit status: 0 done, 1 failed or package refused, 2 wrong usage.)");
    arguments args;
    bool good = true;
    add_keys_command(app, args);
    add_package_command(app, args);
    add_verify_command(app, args, good);
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
    try {
        return run(argc, argv);
    } catch (const std::exception& e) {
        fprintf(stderr, "fotapkg: %s.\n", printable(e.what()).c_str());
        return EXIT_FAILURE;
    }
}
