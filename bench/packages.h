// Packages as a build without fotapkg makes them: by zip, md5sum and openssl alone. Inside the sandbox, in
// BENCH_FOLDER; all throw std::exception when a tool fails.
#pragma once

#include <span>
#include <string>

inline constexpr char BENCH_FOLDER[] = "/opt/bench";

// How the two messages and the archive around them are written.
struct package_form {
    const char* name;
    bool is_stream;  // BER in blocks, as `openssl smime -stream` writes it; else DER
    bool is_stored;  // else deflated
};

// What is wrong with a package: nothing but what the name says. One whose lines are odd, with a blank at
// their ends, is accepted as one without a fault is, but is read in another way.
enum class package_fault { none, bad_signature, other_device, cut_short, odd_lines };

[[nodiscard]] std::span<const package_form> package_forms();
[[nodiscard]] std::span<const package_fault> package_faults();  // but for odd lines
[[nodiscard]] const char* fault_name(package_fault fault);

void sh(const std::string& command);

// The keys that all packages are made with, put on the device, and a foreign certificate.
void make_keys();

// Makes the package details for what follows: incompressible content in two files, and a list of digests.
void make_details(int content_mib);

// Makes a package of these details, which lies where the returned path says until the next call.
[[nodiscard]] std::string make_package(const package_form& form, package_fault fault = package_fault::none);
