// fotapkg: makes and checks what the update daemon takes, on the build host.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>

#include "bundle.h"
#include "facts.h"
#include "inspect.h"
#include "package.h"
#include "private_key.h"
#include "tools/common/command_line.h"
#include "tools/common/completion.h"
#include "tools/common/files.h"
#include "tools/common/output.h"
#include "tools/common/steps.h"
#include "tools/packages/keys.h"
#include "tools/packages/pieces.h"
#include "unseal.h"
#include "verify.h"

namespace {

// What the checks end with. What makes something ends with EXIT_FAILURE when it cannot.
enum { EXIT_GOOD = 0, EXIT_REFUSED = 1, EXIT_USAGE = 2, EXIT_UNCHECKED = 3 };

struct arguments {
    std::function<int()> run;  // the command that was given
    int on_failure = EXIT_FAILURE;
    bool as_json = false, is_quiet = false;
    json facts = json::object();  // what it tells scripts

    std::string folder;
    int bits = 2048;
    bool force = false;
    package_options package;
    bundle_options bundle;
    sign_options signing;
    extract_options extraction;
    std::string checked_file;
    check_options checks;
    inspect_options inspection;
};

template <typename T>
CLI::Option* add(CLI::App* command, const char* name, T& value, const char* type, const std::string& text) {
    return command->add_option(name, value, text)->type_name(type);
}

// An option that may be repeated, with one value each time.
template <typename T>
void add_each(CLI::App* command, const char* name, T& values, const char* type, const std::string& text) {
    add(command, name, values, type, text)->allow_extra_args(false);
}

// A number of bytes, such as 35M.
template <typename T>
CLI::Option* add_bytes(CLI::App* command, const char* name, T& value, uint64_t most,
                       const std::string& text) {
    // Without what they would add to the help.
    const CLI::Validator in_range = CLI::Range(uint64_t{1}, most).description("");
    const CLI::Validator with_unit = CLI::AsSizeValue(false).description("");
    return add(command, name, value, "BYTES", text)->transform(with_unit)->check(in_range);
}

template <typename T>
CLI::Option* add_limit(CLI::App* command, T& limit, const std::string& text) {
    return add_bytes(command, "--limit", limit, MAX_PACKAGE_BYTES,
                     "Limit of the devices, their MaxPkgSizeAllowed, such as 35M" + text);
}

CLI::App* add_command(CLI::App& app, arguments& args, const char* name, const char* text,
                      const std::function<int()>& run, int on_failure = EXIT_FAILURE) {
    CLI::App* command = app.add_subcommand(name, text);
    command->add_flag("--json", args.as_json, "Print what came of it as JSON, and nothing else");
    command->add_flag("--quiet", args.is_quiet, "Print nothing but warnings and failures");
    command->callback([&args, run, on_failure] {
        args.run = run;
        args.on_failure = on_failure;
    });
    return command;
}

// One that makes something of its options.
template <typename Options>
CLI::App* add_maker(CLI::App& app, arguments& args, const char* name, const char* text,
                    void (*make)(const Options&, json&), const Options& options) {
    return add_command(app, args, name, text, [make, &options, &args] {
        make(options, args.facts);
        return EXIT_GOOD;
    });
}

// What signs, and for whom.
void add_signing(CLI::App* command, signing_options& options) {
    add(command, "--keys", options.folder, "DIR", "Folder made by `fotapkg keys`");
    add_each(command, "--key", options.keys, "KEY",
             "Private key to sign with, a file or a pkcs11: URI, instead of build_key.pem; may be repeated");
    add_each(command, "--cert", options.certificates, "FILE",
             "Certificate of a signer, instead of those in the folder; may be repeated");
    add(command, "--passin", options.passin, "FROM",
        "Where its pass phrase or PIN is: env:VARIABLE, file:FILE, or - for standard input")
        ->check(CLI::Validator(passin_problem, ""));
}

void add_sealing(CLI::App* command, sealing_options& options) {
    add_signing(command, options.signing);
    add_limit(command, options.limit, ": no larger package is made");
    command->add_flag("--store", options.store,
                      "Do not deflate what is in the package, which is a third larger then");
}

void add_output(CLI::App* command, std::filesystem::path& output, const char* text) {
    add(command, "-o,--output", output, "FILE", text)->required();
}

void add_keys_command(CLI::App& app, arguments& args) {
    const auto run = [&args] {
        tell_keys(args.folder, args.facts);
        make_keys(args.folder, args.bits, args.force);
        tell_keys(args.folder, args.facts);
        return EXIT_GOOD;
    };
    CLI::App* command =
        add_command(app, args, "keys", "Make keys and certificates of devices and build", run);
    add(command, "DIR", args.folder, "", "Folder to put them in; made when missing")->required();
    add(command, "--bits", args.bits, "BITS", "Size of the RSA keys")
        ->check(CLI::Range(2048, 4096))
        ->capture_default_str();
    command->add_flag("--force", args.force, "Overwrite keys that are there");
}

void add_package_command(CLI::App& app, arguments& args) {
    package_options& options = args.package;
    const CLI::Validator version(version_problem, ""), line(line_problem, "");
    CLI::App* command = add_maker(app, args, "package", "Make an update package", make_package, options);
    add(command, "--content", options.content, "DIR", "Files to install")->required();
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
    add_sealing(command, options.sealing);
    command->add_flag("--details-only", options.details_only,
                      "Leave what is to be signed, for a signing service and `fotapkg sign`");
    add_output(command, options.sealing.output, "The package, such as upgrade.zip");
}

void add_bundle_command(CLI::App& app, arguments& args) {
    bundle_options& options = args.bundle;
    CLI::App* command = add_maker(app, args, "bundle", "Cut a package into signed pieces, for side-loading",
                                  make_bundle, options);
    add(command, "PACKAGE", options.package, "", "The package")->required();
    add_signing(command, options.signing);
    CLI::Option* pieces = add(command, "--pieces", options.pieces, "N", "Number of pieces of equal size")
                              ->check(CLI::Range(uint64_t{1}, MAX_PIECES))
                              ->capture_default_str();
    add_bytes(command, "--piece-size", options.piece_size, MAX_PIECE_BYTES, "Size of all pieces but the last")
        ->excludes(pieces);
    command->add_flag("--pieces-only", options.pieces_only,
                      "Leave a folder of what is to be signed, for a signing service and `fotapkg sign`");
    add_output(command, options.output, "The bundle");
}

void add_sign_command(CLI::App& app, arguments& args) {
    sign_options& options = args.signing;
    CLI::App* command =
        add_maker(app, args, "sign", "Make a package or bundle of signed parts", sign, options);
    add(command, "INPUT", options.input, "",
        "What `package --details-only` left, or the folder of `bundle --pieces-only` with the signatures in "
        "it")
        ->required();
    add_each(command, "--signature", options.sealing.signing.signatures, "FILE",
             "Signature of the details: RSA PKCS#1 v1.5, ECDSA or DSA over SHA-256; may be repeated");
    add_sealing(command, options.sealing);
    add_output(command, options.sealing.output, "The package or the bundle");
}

void add_resign_command(CLI::App& app, arguments& args) {
    sign_options& options = args.signing;
    CLI::App* command =
        add_maker(app, args, "resign", "Sign a package again, with another key", resign, options);
    add(command, "FILE", options.input, "", "The package, or a bundle of it")->required();
    add_sealing(command, options.sealing);
    command->get_option("--keys")->required()->description(
        "Folder with device.pem to open it, device_cert.pem, and the old signer in build_cert.pem");
    add_output(command, options.sealing.output, "The new package");
}

void add_extract_command(CLI::App& app, arguments& args) {
    extract_options& options = args.extraction;
    CLI::App* command =
        add_maker(app, args, "extract", "Take out what is in a package or a bundle", extract, options);
    add(command, "FILE", options.file, "", "The package or bundle")->required();
    add(command, "--keys", options.keys, "DIR",
        "Folder with device.pem, and build_cert.pem to check the signature")
        ->required();
    command->add_flag("--details-only", options.details_only, "Leave the archive of the details");
    add_output(command, options.output, "A new folder, or the archive");
}

void add_verify_command(CLI::App& app, arguments& args) {
    check_options& options = args.checks;
    const auto run = [&] {
        return verify(args.checked_file, options, args.facts) ? EXIT_GOOD : EXIT_REFUSED;
    };
    CLI::App* command =
        add_command(app, args, "verify", "Check a package or a bundle as a device does", run, EXIT_UNCHECKED);
    add(command, "FILE", args.checked_file, "", "The package or bundle")->required();
    add(command, "--keys", options.keys, "DIR", "Folder made by `fotapkg keys`, with the device's key")
        ->required();
    command->add_flag("--bundle", options.is_bundle, "It is a bundle, though it may lack its list of pieces");
    add_limit(command, options.limit, ": refuse the size as the start of a side-load does");
}

void add_inspect_command(CLI::App& app, arguments& args) {
    inspect_options& options = args.inspection;
    const auto run = [&] {
        const inspect_verdict verdict = inspect(options, args.facts);
        if (verdict == inspect_verdict::refused) return EXIT_REFUSED;
        return verdict == inspect_verdict::unchecked ? EXIT_UNCHECKED : EXIT_GOOD;
    };
    CLI::App* command =
        add_command(app, args, "inspect", "Show what is inside a package or a bundle", run, EXIT_UNCHECKED);
    add(command, "FILE", options.file, "", "The package or bundle")->required();
    add(command, "--keys", options.keys, "DIR",
        "Folder with any of the files that `fotapkg keys` makes; without them the outer layers are shown");
    add_limit(command, options.limit, ": refuse the size as the start of a side-load does");
}

int report_failure(arguments& args, const std::string& problem) {
    complain(problem);
    args.facts["error"] = problem;
    if (args.as_json) print_json_line(args.facts);
    return args.on_failure;
}

int run_command(arguments& args) {
    if (args.as_json || args.is_quiet) hide_steps();
    try {
        const int status = [&args] {
            const patience_line line;
            return args.run();
        }();
        args.facts["error"] = nullptr;
        if (args.as_json) print_json_line(args.facts);
        return status;
    } catch (const misuse& e) {
        args.on_failure = EXIT_USAGE;
        return report_failure(args, e.what());
    } catch (const std::filesystem::filesystem_error& e) {
        return report_failure(args,
                              "Cannot use the path \"" + e.path1().string() + "\": " + e.code().message());
    } catch (const std::exception& e) {
        return report_failure(args, e.what());
    }
}

std::string version_text() {
    return std::string("fotapkg ") + FOTA_VERSION + "\n" + built_with();
}

}  // namespace

int main(int argc, char** argv) {
    // Dates in archives are local times: the same input is to give the same archive everywhere.
    setenv("TZ", "UTC", 1);
    tzset();
    clean_up_on_signals();
    CLI::App app("Makes and checks update packages and side-load bundles.", "fotapkg");
    // None is found out below: when it insists on one, CLI11 does not name a mistyped one.
    app.require_subcommand(0, 1);
    app.set_version_flag("--version", version_text(), "Print the version");
    app.footer(R"(Example:
  fotapkg keys keys
  fotapkg package --content image --keys keys --source 1.0 1.1 --target 1.2 \
      --description "Release 1.2" -o upgrade.zip
  fotapkg bundle upgrade.zip --keys keys -o bundle.zip
  fotapkg verify bundle.zip --keys keys
  fotapkg inspect upgrade.zip --keys keys
'fotapkg COMMAND --help' shows the arguments of a command.
Exit status: 0 done, or good; 1 failed, or refused; 2 wrong usage; 3 of verify
and inspect: could not be checked.)");
    arguments args;
    for (const auto add_one :
         {add_keys_command, add_package_command, add_bundle_command, add_sign_command, add_resign_command,
          add_extract_command, add_verify_command, add_inspect_command})
        add_one(app, args);
    add_help_command(app);
    const auto no_values = [](const std::string&, const std::string&) { return std::vector<suggestion>(); };
    if (complete(app, argc, argv, no_values)) return EXIT_GOOD;
    fit_help(app);
    app.failure_message([argc, argv](const CLI::App* failed, const CLI::Error& error) {
        return misuse_text(*failed, error, argc, argv);
    });
    try {
        app.parse(command_words(argc, argv));
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? EXIT_GOOD : EXIT_USAGE;
    }
    if (args.run) return run_command(args);
    fprintf(stderr, "fotapkg: no command given\n%s", app.help().c_str());
    return EXIT_USAGE;
}
