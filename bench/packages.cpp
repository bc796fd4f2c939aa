#include "packages.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "common/state_files.h"

namespace fs = std::filesystem;

namespace {

constexpr package_form FORMS[] = {{"DER deflated", false, false},
                                  {"DER stored", false, true},
                                  {"BER deflated", true, false},
                                  {"BER stored", true, true}};
constexpr package_fault FAULTS[] = {package_fault::none, package_fault::bad_signature,
                                    package_fault::other_device, package_fault::cut_short};

std::string in_folder(const std::string& command) {
    return std::string("cd ") + BENCH_FOLDER + "; " + command;
}

// Another character in the middle of the base64 text, which is so one of the signed content.
void change_a_character(const std::string& path) {
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    auto position = static_cast<std::streamoff>(fs::file_size(path) / 2);
    int old = '\n';
    for (; old == '\n' || old == '\r'; ++position) {
        file.seekg(position);
        old = file.get();
    }
    file.seekp(position - 1);
    file.put(old == 'A' ? 'B' : 'A');
    file.close();
    if (!file) throw std::runtime_error("cannot change " + path);
}

}  // namespace

std::span<const package_form> package_forms() {
    return FORMS;
}

std::span<const package_fault> package_faults() {
    return FAULTS;
}

const char* fault_name(package_fault fault) {
    switch (fault) {
        case package_fault::none:
            return "accepted";
        case package_fault::bad_signature:
            return "bad signature";
        case package_fault::other_device:
            return "other device";
        case package_fault::cut_short:
            return "cut short";
        case package_fault::odd_lines:
            return "odd lines";
    }
    return "";
}

void sh(const std::string& command) {
    if (system(("set -e; " + command).c_str()) != 0) throw std::runtime_error("this failed: " + command);
}

void make_keys() {
    sh("mkdir -p /opt/bench");
    sh(
        in_folder("fotapkg keys keys >/dev/null; openssl req -x509 -newkey rsa:2048 -nodes -subj /CN=foreign "
                  "-keyout foreign_key.pem -out foreign_cert.pem 2>/dev/null"));
    for (const char* key : {FOTA_DEVICE_KEY, FOTA_BUILD_CERT, FOTA_BUILD_PUBKEY}) {
        fs::copy_file(fs::path(BENCH_FOLDER) / "keys" / fs::path(key).filename(), key);
    }
}

void make_details(int content_mib) {
    const std::string mib_text = std::to_string(content_mib);
    sh(in_folder("rm -rf content details.zip; mkdir content; cd content; head -c $((" + mib_text +
                 " * 786432)) /dev/urandom >rootfs.img; head -c $((" + mib_text +
                 " * 262144)) /dev/urandom >modem.img; echo 1.0 >src_ver; echo 2.0 >target_ver; "
                 "echo bench >pkg_description; md5sum * >../list; mv ../list dlpkg_cksum; "
                 "zip -q ../details.zip *; cd ..; rm -rf content"));
}

std::string make_package(const package_form& form, package_fault fault) {
    const std::string stream = form.is_stream ? " -stream" : "";
    const std::string folder = std::string(BENCH_FOLDER) + "/", message = folder + FOTA_PKG_DETAILS_MEMBER;
    sh(in_folder(
        "rm -f package.zip; openssl smime -sign -binary -nodetach -nocerts -md sha256 -in details.zip "
        "-signer keys/build_cert.pem -inkey keys/build_key.pem -out signed" +
        stream));
    if (fault == package_fault::bad_signature) change_a_character(folder + "signed");
    sh(in_folder("openssl smime -encrypt -binary -aes256 -in signed -out " + message + stream +
                 (fault == package_fault::other_device ? " foreign_cert.pem" : " keys/device_cert.pem")));
    if (fault == package_fault::odd_lines) sh("sed -i '20,$s/$/ /' " + message);
    if (fault == package_fault::cut_short) fs::resize_file(message, fs::file_size(message) / 2);
    sh(in_folder(std::string("zip -q ") + (form.is_stored ? "-0 " : "") + "package.zip " +
                 FOTA_PKG_DETAILS_MEMBER + "; rm signed " + FOTA_PKG_DETAILS_MEMBER));
    return folder + "package.zip";
}
