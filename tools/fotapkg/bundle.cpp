#include "bundle.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "common/state_files.h"
#include "facts.h"
#include "tools/common/files.h"
#include "tools/common/output.h"
#include "tools/common/steps.h"
#include "tools/packages/archives.h"
#include "tools/packages/pieces.h"

namespace fs = std::filesystem;

namespace {

std::string list_name() {
    return fs::path(FOTA_SIDELOAD_PKG_LIST).filename();
}

std::vector<file_range> cut(const file_range& package, const bundle_options& options) {
    const uint64_t size = package.size;
    const uint64_t count = options.piece_size ? (size - 1) / *options.piece_size + 1 : options.pieces;
    const std::string wish = size_text(size) + " cannot be cut into " + std::to_string(count) + " pieces; ";
    if (count > size) throw failure(wish + "ask for fewer");
    if (count > MAX_PIECES) {
        throw failure(wish + "give a --piece-size that makes at most " + std::to_string(MAX_PIECES));
    }
    std::vector<file_range> pieces;
    uint64_t offset = 0;
    for (uint64_t i = 0; i < count; ++i) {
        const uint64_t equal = size / count + (i < size % count ? 1 : 0);
        const uint64_t length = options.piece_size ? std::min(*options.piece_size, size - offset) : equal;
        if (length > MAX_PIECE_BYTES) throw failure("Devices take no pieces of 2 GiB and more; ask for more");
        pieces.push_back({package.path, offset, length});
        offset += length;
    }
    return pieces;
}

std::string piece_name(size_t index) {
    char name[32];
    snprintf(name, sizeof name, "piece_%04zu", index + 1);
    return name;
}

// What a bundle has beside the signatures: the list first, then the pieces.
std::vector<zip_entry> collect_pieces(const std::vector<file_range>& pieces, const work_folder& work,
                                      json& facts) {
    std::vector<zip_entry> entries(1);
    std::string list;
    for (size_t i = 0; i < pieces.size(); ++i) {
        const std::string name = piece_name(i);
        entries.push_back({name, pieces[i]});
        list += name + SIGNATURE_SUFFIX + "\n";
        facts["pieces"].push_back({{"name", name}, {"size", pieces[i].size}});
    }
    write_file(work / list_name(), list, 0600);
    entries.front() = {list_name(), whole_file(work / list_name())};
    return entries;
}

void write_folder(const fs::path& folder, const std::vector<zip_entry>& entries) {
    check_new_folder(folder);
    make_complete(folder, [&](const fs::path& part) {
        fs::create_directory(part);
        for (const zip_entry& entry : entries) write_range(entry.data, part / entry.name, 0644);
    });
}

void write_bundle(const fs::path& output, const std::vector<zip_entry>& entries, json& facts) {
    set_doing("writing the bundle");
    // A package that is only stored is base64 text: deflating saves a quarter of the upload.
    write_zip(output, entries, zip_method::deflated);
    show_step("bundle", output.string() + ", " + file_size_text(output));
    add_file(output, facts);
}

void begin_facts(const fs::path& output, json& facts) {
    facts = {{"output", output.string()}, {"size", nullptr}, {"sha256", nullptr}, {"pieces", json::array()}};
}

std::string pieces_text(const std::vector<file_range>& pieces) {
    return std::to_string(pieces.size()) + " of " + size_text(pieces.front().size);
}

}  // namespace

void make_bundle(const bundle_options& options, json& facts) {
    begin_facts(options.output, facts);
    if (!options.pieces_only) check_output(options.output);
    std::error_code ignored;
    if (fs::equivalent(options.package, options.output, ignored))
        throw failure("The bundle would replace its package; give another --output");
    const file_range package = whole_file(options.package);
    if (!LIBRARY_READER.has_member(options.package, FOTA_PKG_DETAILS_MEMBER)) {
        throw failure(options.package.string() + " is no update package; make one with `fotapkg package`");
    }
    const work_folder work;
    const std::vector<file_range> pieces = cut(package, options);
    if (options.pieces_only) {
        set_doing("writing the pieces");
        write_folder(options.output, collect_pieces(pieces, work, facts));
        show_step("pieces", pieces_text(pieces) + " in " + options.output.string());
        show_step("", std::string("for a signature beside each, as piece_0001") + SIGNATURE_SUFFIX);
        return;
    }
    const build_signer signer = read_piece_signer(options.signing, piece_key_file(options.signing, work));
    set_doing("signing the pieces");
    std::vector<zip_entry> entries;
    for (const zip_entry& entry : collect_pieces(pieces, work, facts)) {
        entries.push_back(entry);
        if (entry.name == list_name()) continue;
        const std::string signature = entry.name + SIGNATURE_SUFFIX;
        write_file(work / signature, sign_range(entry.data, signer.key.get()), 0600);
        entries.push_back({signature, whole_file(work / signature)});
    }
    show_step("pieces", pieces_text(pieces) + ", each signed with " + signer.source);
    write_bundle(options.output, entries, facts);
}

void bundle_signed_pieces(const fs::path& folder, const signing_options& signing, const fs::path& output,
                          json& facts) {
    begin_facts(output, facts);
    check_output(output);
    const work_folder work;
    const fs::path public_key = piece_key_file(signing, work);
    set_doing("checking the pieces");
    std::vector<zip_entry> entries = {{list_name(), {}}};
    for (const std::string& name : read_piece_list(folder)) {
        if (!fs::exists(folder / name))
            throw failure("There is no signature " + (folder / name).string() + "; put it there");
        const bundle_piece piece = look_at_piece(folder, name, public_key);
        if (!piece.problem.empty()) throw failure(piece.problem);
        entries.push_back({piece.name, whole_file(folder / piece.name)});
        entries.push_back({name, whole_file(folder / name)});
        facts["pieces"].push_back({{"name", piece.name}, {"size", piece.size}});
    }
    entries.front().data = whole_file(folder / list_name());
    show_step("pieces", std::to_string(entries.size() / 2) + ", each with a good signature");
    write_bundle(output, entries, facts);
}
