#include "inspect.h"

#include <algorithm>
#include <string>
#include <vector>

#include "core/config.h"
#include "facts.h"
#include "inspection.h"
#include "tools/common/files.h"
#include "tools/common/output.h"
#include "tools/common/steps.h"
#include "tools/packages/keys.h"
#include "tools/packages/size_limit.h"

namespace {

const char* kind_text(file_kind kind) {
    switch (kind) {
        case file_kind::package:
            return "package";
        case file_kind::bundle:
            return "bundle";
        case file_kind::unknown:
            return "unknown";
    }
    return "";
}

const char* state_text(file_state state) {
    switch (state) {
        case file_state::matching:
            return "matches";
        case file_state::differing:
            return "differs";
        case file_state::missing:
            return "missing";
        case file_state::outside:
            return "outside";
        case file_state::unlisted:
            return "not listed";
    }
    return "";
}

const char* source_text(signer_source source) {
    switch (source) {
        case signer_source::build_signers:
            return "build_cert.pem";
        case signer_source::message:
            return "message";
        case signer_source::nowhere:
            return "none";
    }
    return "";
}

template <typename T>
json or_null(const std::optional<T>& value) {
    return value ? json(*value) : json();
}

json members_json(const std::vector<zip_member>& members) {
    json list = json::array();
    for (const zip_member& member : members)
        list.push_back({{"name", member.name}, {"size", member.size}, {"is_file", member.is_file}});
    return list;
}

json bundle_json(const bundle_facts& bundle) {
    json pieces = json::array();
    for (const bundle_piece& piece : bundle.pieces) {
        pieces.push_back({{"name", piece.name},
                          {"signature", piece.signature},
                          {"size", piece.size},
                          {"signed", or_null(piece.is_signed)},
                          {"problem", piece.problem}});
    }
    return {{"members", members_json(bundle.members)}, {"pieces", pieces}, {"unlisted", bundle.unlisted}};
}

json encryption_json(const encryption_facts& encryption) {
    json recipients = json::array();
    for (const message_recipient& recipient : encryption.recipients) {
        recipients.push_back({{"issuer", recipient.issuer},
                              {"serial", recipient.serial},
                              {"is_device", or_null(recipient.is_device)}});
    }
    return {{"cipher", encryption.cipher}, {"recipients", recipients}};
}

json signature_json(const signature_facts& signature) {
    json signers = json::array();
    for (const message_signer& signer : signature.signers) {
        signers.push_back({{"subject", signer.subject},
                           {"issuer", signer.issuer},
                           {"serial", signer.serial},
                           {"sha256", signer.sha256},
                           {"digest", signer.digest},
                           {"certificate", source_text(signer.source)}});
    }
    return {{"good", or_null(signature.is_good)}, {"signers", signers}};
}

json content_json(const staged_details& staged, const std::vector<std::string>& links) {
    json files = json::array(), scripts = json::array();
    for (const staged_file& file : staged.files) {
        files.push_back(
            {{"name", file.name}, {"size", file.size}, {"md5", file.md5}, {"state", state_text(file.state)}});
    }
    for (const staged_script& script : staged.scripts) {
        scripts.push_back({{"name", script.name}, {"size", script.size}, {"first_line", script.first_line}});
    }
    return {{"from", staged.sources},
            {"to", staged.targets},
            {"description", staged.description},
            {"estimate_secs", or_null(staged.estimate_secs)},
            {"full_image", staged.is_full_image},
            {"has_list", staged.has_list},
            {"scripts", scripts},
            {"files", files},
            {"links", links}};
}

json to_json(const inspection& found, const inspect_options& options, uint64_t limit) {
    json end;
    if (found.end) {
        end = {
            {"layer", found.end->layer}, {"reason", found.end->reason}, {"needs_key", found.end->needs_key}};
    }
    json details;
    if (found.details) details = {{"size", found.details->size}, {"sha256", found.details->sha256}};
    return {{"file", options.file.string()},
            {"size", found.file_size},
            {"kind", kind_text(found.kind)},
            {"bundle", found.bundle ? bundle_json(*found.bundle) : json()},
            {"package_size", or_null(found.package_size)},
            {"limit", limit_facts(found.package_size, limit, found.bundle.has_value())},
            {"members", members_json(found.members)},
            {"encryption", found.encryption ? encryption_json(*found.encryption) : json()},
            {"signature", found.signature ? signature_json(*found.signature) : json()},
            {"details", details},
            {"content", found.content ? content_json(*found.content, found.links) : json()},
            {"end", end}};
}

void show_bundle(const bundle_facts& bundle) {
    for (const bundle_piece& piece : bundle.pieces) {
        std::string verdict = std::string("not checked: --keys has no ") + BUILD_PUBKEY_FILE;
        if (!piece.problem.empty()) {
            verdict = "NOT good: " + piece.problem;
        } else if (piece.is_signed) {
            verdict = std::string("signed by the owner of ") + BUILD_PUBKEY_FILE;
        }
        show_step("piece", piece.name + ", " + size_text(piece.size) + ", " + verdict);
    }
    for (const std::string& name : bundle.unlisted) show_step("", "not in the list: " + name);
}

void show_encryption(const encryption_facts& encryption) {
    show_step("encryption", encryption.cipher);
    for (const message_recipient& recipient : encryption.recipients) {
        std::string text = recipient.issuer + ", serial " + recipient.serial;
        if (recipient.is_device)
            text += *recipient.is_device ? std::string(": in ") + DEVICE_CERT_FILE
                                         : std::string(": NOT in ") + DEVICE_CERT_FILE;
        show_step("recipient", text);
    }
}

void show_signature(const signature_facts& signature) {
    show_step("signature", !signature.is_good   ? std::string("not checked: --keys has no ") + BUILD_CERT_FILE
                           : *signature.is_good ? "good"
                                                : "NOT good: devices refuse it");
    for (const message_signer& signer : signature.signers) {
        if (signer.source == signer_source::nowhere) {
            show_step("signer", "issued by " + signer.issuer + ", serial " + signer.serial + ", " +
                                    signer.digest + "; its certificate is not at hand");
            continue;
        }
        show_step("signer", signer.subject + ", " + signer.digest);
        show_step("", "certificate SHA-256 " + signer.sha256);
        show_step("", signer.source == signer_source::build_signers
                          ? std::string("in ") + BUILD_CERT_FILE
                          : std::string("travels in the message, NOT in ") + BUILD_CERT_FILE);
    }
}

void show_content(const staged_details& staged, const std::vector<std::string>& links) {
    show_step("versions", versions_text(staged));
    show_step("description", staged.description);
    show_step("estimate", staged.estimate_secs ? duration_text(*staged.estimate_secs) : "none");
    show_step("full image", full_image_text(staged));
    for (const staged_script& script : staged.scripts)
        show_step("script", script.name + ", " + size_text(script.size) + ": " + script.first_line);
    if (!staged.has_list) show_step("checksum list", "there is none: devices refuse it");
    output_table table = {{"file", "bytes", "MD5", "list"}, {}};
    for (const staged_file& file : staged.files)
        table.rows.push_back({file.name, std::to_string(file.size), file.md5, state_text(file.state)});
    show_table(table);
    for (const std::string& name : links) show_step("link", name + ", left out here");
}

void show(const inspection& found, const inspect_options& options, uint64_t limit) {
    show_step(kind_text(found.kind), options.file.string() + ", " + size_text(found.file_size));
    if (found.bundle) show_bundle(*found.bundle);
    if (found.bundle && found.package_size) show_step("package", size_text(*found.package_size));
    if (found.kind != file_kind::unknown && found.package_size)
        show_step("size", judge_size(*found.package_size, limit, found.bundle.has_value()).text);
    for (const zip_member& member : found.members)
        show_step("member",
                  member.name + ", " + size_text(member.size) + (member.is_file ? "" : ", no file"));
    if (found.encryption) show_encryption(*found.encryption);
    if (found.signature) show_signature(*found.signature);
    if (found.details)
        show_step("details", size_text(found.details->size) + ", SHA-256 " + found.details->sha256);
    if (found.content) show_content(*found.content, found.links);
    if (found.end) show_step("ends", "at the " + found.end->layer + ": " + found.end->reason);
}

// Whether a device would refuse what was found.
bool is_refused(const inspection& found, const inspect_options& options) {
    if (found.end && !found.end->needs_key) return true;
    if (found.signature && found.signature->is_good == false) return true;
    if (found.bundle && std::any_of(found.bundle->pieces.begin(), found.bundle->pieces.end(),
                                    [](const bundle_piece& piece) { return !piece.problem.empty(); }))
        return true;
    const std::string verdict =
        options.limit && found.package_size
            ? judge_size(*found.package_size, *options.limit, found.bundle.has_value()).verdict
            : "";
    return verdict == "refused" || (found.content && !list_problem(*found.content).empty());
}

// Whether the folder of keys lacks one that a device has.
bool is_unchecked(const inspection& found) {
    const auto is_unsigned = [](const bundle_piece& piece) { return !piece.is_signed; };
    return found.end || !found.signature->is_good ||
           (found.bundle &&
            std::any_of(found.bundle->pieces.begin(), found.bundle->pieces.end(), is_unsigned));
}

}  // namespace

inspect_verdict inspect(const inspect_options& options, json& facts) {
    facts = to_json({}, options, 0);
    facts["size"] = nullptr;  // nothing is known yet
    const work_folder work;
    const inspection found = inspect_file(options.file, options.keys, work);
    const uint64_t limit = options.limit.value_or(FOTA_DEFAULT_PKG_SIZE);
    facts = to_json(found, options, limit);
    show(found, options, limit);
    if (is_refused(found, options)) return inspect_verdict::refused;
    return options.keys && is_unchecked(found) ? inspect_verdict::unchecked : inspect_verdict::good;
}
