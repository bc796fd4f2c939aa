#include "tools/packages/package_checks.h"

#include <algorithm>
#include <exception>
#include <string>
#include <utility>

#include "common/state_files.h"
#include "core/config.h"
#include "package/checksum_list.h"
#include "package/validation_steps.h"
#include "tools/common/files.h"
#include "tools/common/steps.h"
#include "tools/packages/archives.h"
#include "tools/packages/daemon_log.h"
#include "tools/packages/keys.h"
#include "tools/packages/messages.h"
#include "tools/packages/openssl_objects.h"
#include "tools/packages/pieces.h"
#include "tools/packages/size_limit.h"
#include "tools/packages/staged_details.h"

namespace fs = std::filesystem;

namespace {

using notes = std::vector<output_line>;

// Runs one check after the other and keeps what they come to.
struct check_run {
    const archive_reader& reader;
    const check_options& options;
    check_report& report;

    // `check` fills the notes and returns what it found, or throws bad_input; `code` is the daemon's for
    // that. False when it failed.
    template <typename Check>
    [[nodiscard]] bool operator()(const char* name, fota_rc code, const Check& check) {
        check_result result;
        result.name = name;
        try {
            result.text = check(result.notes);
        } catch (const bad_input& e) {
            result.code = code;
            result.text = e.what();
            result.notes.clear();
            for (const std::string& line : take_daemon_log()) {
                // What the steps say of themselves is told here already.
                if (line.find(VALIDATION_LOG_NAME) == std::string::npos) result.notes.push_back({"", line});
            }
        }
        report.results.push_back(result);
        if (options.on_result) options.on_result(result);
        return result.ok();
    }
};

std::string file_name(const char* path) {
    return fs::path(path).filename();
}

// Who signed a message whose signature is good, and whether devices know the signer.
std::string describe_signers(const fs::path& message, const fs::path& cert_file) {
    const owned<STACK_OF(X509)> known = read_certificates(cert_file);
    std::string text = "by ";
    bool all_known = true;
    for (const message_signer& signer : read_signers(message, known.get())) {
        if (text.size() > 3) text += " and ";
        text += signer.subject;
        all_known = all_known && signer.source == signer_source::build_signers;
    }
    return text + (all_known ? std::string(", known from ") + BUILD_CERT_FILE
                             : std::string(", NOT in ") + BUILD_CERT_FILE +
                                   ": devices that know no other signers refuse it");
}

bool check_file(check_run& check, const fs::path& file) {
    std::error_code error;
    const fs::file_status status = fs::status(file, error);
    const bool is_missing = error || check.report.is_bundle;
    return check("file", is_missing ? FOTA_RC_PKG_NOT_FOUND : FOTA_RC_PKG_NOT_REGULAR, [&](notes&) {
        if (error) throw bad_input(error.message());
        if (!fs::is_regular_file(status)) throw bad_input("it is not a regular file");
        return file_size_text(file);
    });
}

// Only the start of a side-load looks at the size, and there of no package that already lies in its place, as
// one does that a bundle's pieces have made.
bool check_size(check_run& check, const fs::path& package, uint64_t limit) {
    return check("size", FOTA_RC_PKG_TOO_BIG, [&](notes&) {
        const size_judgement judgement = judge_size(fs::file_size(package), limit, false);
        if (judgement.verdict == std::string("refused")) throw bad_input(judgement.text);
        return judgement.text;
    });
}

std::string unpack(const archive_reader& reader, const fs::path& zip, const fs::path& folder, notes& found) {
    fs::create_directory(folder);
    const unpacked_zip unpacked = reader.extract_all(zip, folder);
    reader.test(zip, nullptr);
    for (const std::string& name : unpacked.links) found.push_back({"", "a link, left out here: " + name});
    return std::to_string(unpacked.files) + " files";
}

// Whether the daemon's code may open what the list names: files of this machine are not its business.
bool is_harmless(const staged_details& staged) {
    return std::none_of(staged.files.begin(), staged.files.end(),
                        [](const staged_file& file) { return file.state == file_state::outside; });
}

std::string recipients_text(const encryption_facts& facts) {
    std::string text;
    for (const message_recipient& recipient : facts.recipients)
        text += (text.empty() ? "" : " and ") + recipient.issuer + ", serial " + recipient.serial;
    return text.empty() ? "nobody" : text;
}

// The daemon's own validation, of a package in a folder of this machine. What is thrown waits until the
// daemon's code, which knows no exceptions, has returned.
struct package_check {
    check_run& check;
    const work_folder& work;
    const fs::path device_key = key_file(check.options.keys, DEVICE_KEY_FILE);
    const fs::path build_cert = key_file(check.options.keys, BUILD_CERT_FILE);
    const fs::path encrypted = work / FOTA_PKG_DETAILS_MEMBER, signed_details = work / "signed",
                   details = work / "pkg_details.zip", staging = work / "staging",
                   list = staging / staged_name(FOTA_STAGING_CHECKSUM_LIST);
    std::exception_ptr thrown = nullptr;  // by what was done last
    std::string files_text = {};
    notes links = {};

    template <typename Work>
    fota_rc keep_thrown(const Work& work_to_do) {
        try {
            work_to_do();
            return FOTA_RC_SUCCESS;
        } catch (...) {
            thrown = std::current_exception();
            return FOTA_RC_FAILURE;
        }
    }

    void unpack_member(const fs::path& package) {
        set_doing("unpacking the package", growth_of(encrypted, fs::file_size(package)));
        check.reader.extract_member(package, FOTA_PKG_DETAILS_MEMBER, encrypted);
        check.reader.test(package, FOTA_PKG_DETAILS_MEMBER);
        work.check_room(2 * fs::file_size(encrypted));
    }

    // Two steps, of which the daemon's code says nothing before both are done.
    void begin_decryption() {
        const uint64_t size = fs::file_size(encrypted) / 4 * 3;  // its text is base64
        set_doing("checking the message",
                  [decrypted = growth_of(signed_details, size), verified = growth_of(details, size / 4 * 3)] {
                      const std::string share = verified(), first = decrypted();
                      if (!share.empty()) return "its signature, " + share;
                      return first.empty() ? first : "decrypting, " + first;
                  });
    }

    void unpack_details() { files_text = unpack(check.reader, details, staging, links); }

    // A check that is made already: `describe` says what was found, and throws what is wrong, when it is not
    // what was thrown then.
    template <typename Describe>
    bool report(const char* name, fota_rc rc, const Describe& describe) {
        return check(name, rc, [&](notes& found) {
            if (thrown) std::rethrow_exception(std::exchange(thrown, nullptr));
            return describe(found);
        });
    }

    // False when the validation ends there.
    bool report_step(validation_step step, fota_rc rc) {
        switch (step) {
            case validation_step::package_file:
                return true;  // was reported before
            case validation_step::member:
                if (!report("member", rc,
                            [&](notes&) {
                                return FOTA_PKG_DETAILS_MEMBER + (", " + file_size_text(encrypted));
                            }) ||
                    check.options.without_device_key)
                    return false;
                begin_decryption();
                return true;
            case validation_step::decryption:
                if (!report_decryption(rc) || !report_signature(rc)) return false;
                set_doing("unpacking the details");
                return true;
            case validation_step::unpacking:
                set_doing("comparing digests");
                return report("unpacking", rc,
                              [&](notes& found) {
                                  found = links;
                                  return files_text;
                              }) &&
                       // Before the daemon's code opens what the list names.
                       (is_harmless(read_staged_details(staging)) || report_files(FOTA_RC_FAILURE));
            case validation_step::checksum_list:
                return report_files(rc);
        }
        return false;
    }

    bool report_decryption(fota_rc rc) {
        // After a failure a file with nothing in it is left.
        const bool is_bad =
            rc != FOTA_RC_SUCCESS && (!fs::exists(signed_details) || fs::is_empty(signed_details));
        return report("decryption", rc, [&](notes&) {
            if (!is_bad) return file_size_text(signed_details);
            throw bad_input("it is damaged, or not encrypted for " + device_key.string() + " but for " +
                            recipients_text(read_encryption(encrypted, nullptr)));
        });
    }

    bool report_signature(fota_rc rc) {
        return report("signature", rc, [&](notes&) {
            if (rc == FOTA_RC_SUCCESS) return describe_signers(signed_details, build_cert);
            throw bad_input("it is damaged, or not signed by a signer in " + build_cert.string());
        });
    }

    bool report_files(fota_rc rc) {
        return report("checksum list", rc, [&](notes& found) {
            const staged_details staged = read_staged_details(staging);
            const std::string problem = list_problem(staged);
            if (!problem.empty()) {
                (void)take_daemon_log();  // it says the same
                throw bad_input(problem);
            }
            if (rc != FOTA_RC_SUCCESS) throw bad_input("the device's check of its files fails");
            return describe_files(staged, found);
        });
    }

    std::string describe_files(const staged_details& staged, notes& found) {
        size_t matching = 0;
        uint64_t staged_bytes = fs::file_size(list);
        for (const staged_file& file : staged.files) {
            staged_bytes += file.size;
            if (file.state == file_state::matching) ++matching;
            if (file.state == file_state::unlisted) found.push_back({"", "not in the list: " + file.name});
        }
        found.push_back({"versions", versions_text(staged)});
        check_report& result = check.report;
        result.source_versions = staged.sources;
        result.target_versions = staged.targets;
        result.description = staged.description;
        result.estimate_secs = staged.estimate_secs;
        result.data_bytes = std::max<uint64_t>(fs::file_size(signed_details), staged_bytes);
        result.work_bytes = std::max<uint64_t>(fs::file_size(encrypted), fs::file_size(details));
        if (staged.is_full_image) found.push_back({"full image", full_image_text(staged)});
        return std::to_string(matching) + " files match";
    }
};

package_check& self(const validation_setup& setup) {
    return *static_cast<package_check*>(setup.context);
}

bool check_package(check_run& check, const fs::path& package, const work_folder& work) {
    package_check run = {check, work};
    const validation_setup setup = {
        .device_key = run.device_key.c_str(),
        .build_cert = run.build_cert.c_str(),
        .encrypted = run.encrypted.c_str(),
        .decrypt_temp = run.signed_details.c_str(),
        .details = run.details.c_str(),
        .staging = run.staging.c_str(),
        .checksum_list = run.list.c_str(),
        .keeps_inputs = true,
        .unpack_member =
            [](const validation_setup& s, const char* path) {
                return self(s).keep_thrown([&] { self(s).unpack_member(path); });
            },
        .unpack_details =
            [](const validation_setup& s) { return self(s).keep_thrown([&] { self(s).unpack_details(); }); },
        .after_step =
            [](const validation_setup& s, validation_step step, fota_rc rc) {
                bool goes_on = false;
                return self(s).keep_thrown([&] { goes_on = self(s).report_step(step, rc); }) ==
                           FOTA_RC_SUCCESS &&
                       goes_on;
            },
        .context = &run,
    };
    (void)validate_package(setup, package.c_str());  // the report has it
    if (run.thrown) std::rethrow_exception(run.thrown);
    return check.report.results.back().ok();
}

// Checks the pieces and joins them into `package`.
bool check_pieces(check_run& check, const fs::path& bundle, const work_folder& work,
                  const fs::path& package) {
    const fs::path public_key = key_file(check.options.keys, BUILD_PUBKEY_FILE), folder = work / "pieces";
    set_doing("unpacking the bundle");
    const auto unpacking = [&](notes& found) { return unpack(check.reader, bundle, folder, found); };
    const auto pieces = [&](notes& found) {
        const std::vector<std::string> listed = read_piece_list(folder);
        set_doing("checking the pieces", growth_of(package, fs::file_size(bundle)));
        for (const std::string& name : listed) {
            const bundle_piece piece = look_at_piece(folder, name, public_key);
            if (!piece.problem.empty()) throw bad_input(piece.problem);
            join_piece(folder, piece, package);
        }
        for (const std::string& name : unlisted_files(folder, listed))
            found.push_back({"", "not in the list: " + name});
        return std::to_string(listed.size()) + ", signed by the owner of " + BUILD_PUBKEY_FILE;
    };
    return check("unpacking", FOTA_RC_FAILURE, unpacking) && check("pieces", FOTA_RC_PKG_INVALID, pieces);
}

// A device without good keys refuses everything: that is not to be blamed on a package.
void check_keys(const check_options& options, bool for_bundle) {
    if (!options.without_device_key) {
        check_device_key(key_file(options.keys, DEVICE_KEY_FILE));
        (void)read_certificates(key_file(options.keys, BUILD_CERT_FILE));
    }
    if (for_bundle) (void)read_public_key(key_file(options.keys, BUILD_PUBKEY_FILE));
}

// What the client whose request ends in `code` hears: not every step has an answer of its own.
fota_rc answer_of_package(fota_rc code, bool is_side_load) {
    if (is_side_load) return FOTA_RC_PKG_VALIDATION_FAILED;
    if (code == FOTA_RC_PKG_INVALID) return FOTA_RC_FAILURE;
    return code;
}

}  // namespace

check_report check_package_file(const fs::path& file, const archive_reader& reader,
                                const check_options& options) {
    const work_folder work;
    check_report report;
    report.is_bundle = options.is_bundle || (fs::is_regular_file(file) &&
                                             reader.has_member(file, file_name(FOTA_SIDELOAD_PKG_LIST)));
    check_keys(options, report.is_bundle);
    check_run check = {reader, options, report};
    const fs::path package = report.is_bundle ? work / "upgrade.zip" : file;
    if (!check_file(check, file) || (report.is_bundle && !check_pieces(check, file, work, package))) {
        report.answer = report.results.back().code;
        return report;
    }
    report.package_size = fs::file_size(package);
    if (options.limit && !report.is_bundle && !check_size(check, file, *options.limit)) {
        report.answer = FOTA_RC_PKG_TOO_BIG;
    } else if (!check_package(check, package, work)) {
        report.answer = answer_of_package(report.results.back().code, report.is_bundle);
    }
    return report;
}
