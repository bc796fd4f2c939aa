// Whole updates by the real programs: packages good and bad, and what each step leaves.
#include <sys/resource.h>
#include <sys/stat.h>

#include "package/crypto.h"
#include "support/daemon_fixture.h"

namespace {

constexpr char AGENT[] = "agent-a";

struct Update : DaemonTest {
    void SetUp() override {
        DaemonTest::SetUp();
        start();
        sh("mkdir -p /opt/bench/content/sub; cd /opt/bench; echo one >content/a; echo two >content/sub/b");
    }

    // Makes /opt/qast/data/fota/upgrade.zip of the content folder.
    static void package(const std::string& options = "") {
        sh("cd /opt/bench; fotapkg package --content content --keys $K --source 1.0 --target 2.0 "
           "--description Text " +
           options + " -o " + FOTA_UPGRADE_PKG);
    }

    // What package makers with other keys need: a good package's inner archive, a foreign signer, and `wrap
    // SIGNER DEVICE [OPTION]`, which makes p.zip the way openssl does.
    static void prepare_parts() {
        char phrase[64] = {};
        ASSERT_GT(pw_cb(phrase, sizeof phrase, 0, nullptr), 0);
        setenv("P", phrase, 1);
        package();
        sh("cd /opt/bench; cp $K/*.pem .; unzip -q -o " + std::string(FOTA_UPGRADE_PKG) +
           " pkg_details.zip.enc; "
           "openssl smime -decrypt -in pkg_details.zip.enc -inkey device.pem -passin env:P -out signed;"
           "openssl smime -verify -in signed -certfile build_cert.pem -nointern -noverify -out inner.zip;"
           "cat >wrap <<'EOF'\n"
           "openssl smime -sign -binary -nodetach -signer $1_cert.pem -inkey $1_key.pem $3 -in inner.zip "
           "-out s\n"
           "openssl smime -encrypt -binary -aes256 -in s -out pkg_details.zip.enc $2_cert.pem\n"
           "rm -f p.zip; zip -q p.zip pkg_details.zip.enc\n"
           "EOF\n"
           "openssl req -x509 -newkey rsa:2048 -nodes -subj /CN=foreign -keyout foreign_key.pem -out "
           "foreign_cert.pem");
    }

    update_session session = {.agent = AGENT};
};

TEST_F(Update, PackagesThatAreRefused) {
    prepare_parts();
    const struct {
        const char* name;
        const char* make;  // leaves p.zip
        int result;
        const char* log;
    } rows[] = {
        {"good, as openssl makes it", "sh -e wrap build device", SUCCESS, "DlPkg verification success"},
        {"member in a folder", "mkdir d; mv pkg_details.zip.enc d; zip -q p.zip d/pkg_details.zip.enc",
         FOTA_RC_FAILURE, "unpack_and_validate_pkg: unzip_a_specific_file() failed"},
        {"no zip", "echo text >p.zip", FOTA_RC_FAILURE, "unzip_a_specific_file() failed"},
        {"cut short", "head -c 3000 good.zip >p.zip", FOTA_RC_FAILURE, "unzip_a_specific_file() failed"},
        {"no message inside", "echo text >pkg_details.zip.enc; zip -q p.zip pkg_details.zip.enc",
         FOTA_RC_FAILURE, "decrypt_file: Error while reading data in PKCS7 format"},
        {"for another device", "sh -e wrap build foreign", FOTA_RC_FAILURE,
         "fota_decrypt_file() failed for file:pkg_details.zip.enc"},
        {"unknown signer", "sh -e wrap foreign device -nocerts", FOTA_RC_FAILURE,
         "verify_signature: Error Verification failed"},
        {"no archive inside", "echo text >inner.zip; sh -e wrap build device", FOTA_RC_FAILURE,
         "unpack_and_validate_pkg: unzip_a_file() failed"},
        {"file differs from its digest", "echo three >a; zip -q inner.zip a; sh -e wrap build device",
         FOTA_RC_FAILURE, "unpack_and_validate_pkg: %%%%%%%%% DlPkg checksum failed"},
        {"something before the archive", "(echo text; cat good.zip) >p.zip", FOTA_RC_FAILURE,
         "unzip_a_specific_file() failed"},
        {"what only daemon and installer may say",
         "touch result_success update_pre_full_fota_install sua_cookie lpm; mkdir -p result_failure/x; zip "
         "-qr "
         "inner.zip result_* update_* sua_cookie lpm; sh -e wrap build device",
         SUCCESS,
         "The package brings along what is not its to say:/opt/qast/data/fota/staging/result_failure\n"},
        {"no list of digests", "zip -q -d inner.zip dlpkg_cksum; sh -e wrap build device", FOTA_RC_FAILURE,
         "verify_checksum: DlPkg Cannot open cksum_file"},
    };
    sh("cp /opt/qast/data/fota/upgrade.zip /opt/bench/good.zip");
    uint32_t last_id = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        sh(std::string("rm -rf /opt/row; cp -r /opt/bench /opt/row; cd /opt/row; ") + row.make +
           "; mv p.zip " + FOTA_UPGRADE_PKG + "; : >/var/log/debug_log");
        EXPECT_EQ(fotapkg_json("verify --keys $K " + std::string(FOTA_UPGRADE_PKG))["answer"], row.result);
        ASSERT_EQ(agent_lock(session), SUCCESS);
        EXPECT_EQ(agent_validate(session), row.result);
        EXPECT_TRUE(log_has(row.log)) << get_file(DEBUG_LOG);
        EXPECT_EQ(session.rec_id, ++last_id);
        const fota_history_rec record = stored_record(last_id);
        if (row.result == SUCCESS) {
            EXPECT_EQ(record.status, 0u);
            EXPECT_STREQ(record.reason, "Installation is pending");
            EXPECT_EQ(list_folder(FOTA_DATA_DIR),
                      "history.bin session staging/ tracking update_check upgrade.zip");
            EXPECT_EQ(list_folder(FOTA_STAGING_DIR),
                      "a dlpkg_cksum pkg_description src_ver sub/ target_ver update_dlpkg_verified");
            ASSERT_EQ(fota_client_clear_session_lock(AGENT, TIMEOUT_MS), SUCCESS);
        } else {
            EXPECT_EQ(record.status, 404u);
            for (const char* gone :
                 {FOTA_SESSION_LOCK, FOTA_STAGING_DIR, FOTA_UPGRADE_PKG, FOTA_PKG_DETAILS}) {
                EXPECT_FALSE(exists(gone)) << gone;
            }
            for (const char* work_file : {FOTA_DECRYPT_TEMP, FOTA_PKG_DETAILS_ENCRYPTED}) {
                EXPECT_TRUE(!exists(work_file) || get_file(work_file).empty()) << work_file;
            }
        }
        EXPECT_FALSE(exists("/run/vexa/powersave/fota"));
    }
}

TEST_F(Update, PlantedNamesAreNeverFollowed) {
    put_file("/opt/precious", "precious");
    for (const char* plant : {"ln -s /opt/precious ", "mkfifo ", "mkdir -p "}) {
        SCOPED_TRACE(plant);
        package();
        for (const std::string path : {FOTA_PKG_DETAILS_ENCRYPTED, FOTA_PKG_DETAILS}) {
            sh("rm -rf " + path + "; " + plant + path);
        }
        ASSERT_EQ(agent_lock(session), SUCCESS);
        EXPECT_EQ(agent_validate(session), SUCCESS) << get_file(DEBUG_LOG);
        struct stat info = {};
        ASSERT_EQ(lstat(FOTA_PKG_DETAILS, &info), 0);
        EXPECT_EQ(info.st_mode, S_IFREG | 0600u);
        EXPECT_FALSE(exists(FOTA_PKG_DETAILS_ENCRYPTED));
        EXPECT_EQ(get_file("/opt/precious"), "precious");
        ASSERT_EQ(fota_client_clear_session_lock(AGENT, TIMEOUT_MS), SUCCESS);
    }
}

TEST_F(Update, ShortMemoryEndsTheValidationAndNotTheDaemon) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer takes more address space than any limit that this could set";
#endif
    sh("head -c 8M /dev/urandom >/opt/bench/content/image");
    constexpr rlimit LIMIT = {32 << 20, RLIM_INFINITY};  // bytes mapped, program and libraries included
    // Only what is not of ordinary form is read as a whole.
    for (const std::string spoil : {"", "sed -i '20,$s/$/ /' pkg_details.zip.enc"}) {
        SCOPED_TRACE(spoil);
        package();
        if (!spoil.empty()) {
            sh("cd /opt/qast/data/fota; unzip -q upgrade.zip; " + spoil +
               "; zip -qm upgrade.zip pkg_details.zip.enc");
        }
        ASSERT_EQ(agent_lock(session), SUCCESS);
        ASSERT_EQ(prlimit(daemon, RLIMIT_AS, &LIMIT, nullptr), 0);
        EXPECT_EQ(agent_validate(session), spoil.empty() ? SUCCESS : FOTA_RC_FAILURE) << get_file(DEBUG_LOG);
        EXPECT_EQ(log_has("decrypt_file: Error while reading data in PKCS7 format"), !spoil.empty());
        int32_t status = -1;
        EXPECT_EQ(fota_client_get_upgrade_status(&status, TIMEOUT_MS), SUCCESS);
    }
}

TEST_F(Update, InspectionTellsWhoSigned) {
    prepare_parts();
    sh("cd /opt/bench; for i in build foreign; do openssl x509 -outform der -in ${i}_cert.pem | sha256sum | "
       "cut -c-64 | tr -d '\\n' >$i; done; : >nobody");
    const struct {
        const char *wrap, *certificate, *signer;
    } rows[] = {{"build device", "build_cert.pem", "build"},
                {"foreign device", "message", "foreign"},
                {"foreign device -nocerts", "none", "nobody"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.wrap);
        sh(std::string("cd /opt/bench; sh -e wrap ") + row.wrap);
        const auto found = fotapkg_json("inspect --keys $K /opt/bench/p.zip");
        EXPECT_EQ(found["signature"]["signers"][0]["certificate"], row.certificate);
        EXPECT_EQ(found["signature"]["signers"][0]["sha256"],
                  get_file(std::string("/opt/bench/") + row.signer));
        EXPECT_EQ(found["encryption"]["recipients"][0]["is_device"], true);
        EXPECT_EQ(found["content"]["files"][0]["md5"], "5bbf5a52328e7439ae6e719dfe712200");
        EXPECT_EQ(fotapkg_json("inspect /opt/bench/p.zip")["end"]["layer"], "encryption");
    }
}

TEST_F(Update, SameInputGivesTheSameDetails) {
    const auto details = [](const std::string& change) {
        sh("cd /opt/bench; " + change);
        package();
        return fotapkg_json("inspect --keys $K " + std::string(FOTA_UPGRADE_PKG))["details"]["sha256"];
    };
    const auto first = details(":");
    EXPECT_EQ(details("rm -r content; umask 077; mkdir -p content/sub; echo two >content/sub/b; "
                      "echo one >content/a; touch -d 2001-02-03 content/a"),
              first);
    EXPECT_NE(details("chmod u+x content/a"), first);
}

// Other forms pass, too, but these are the least to download and to read.
TEST_F(Update, LayersOfAPackage) {
    prepare_parts();
    const struct { const char *options, *method; } rows[] = {{"", "Defl"}, {"--store", "Stored"}};
    for (const auto& row : rows) {
        package(row.options);
        sh("unzip -v " + std::string(FOTA_UPGRADE_PKG) + " | grep -q '" + row.method +
           ".* pkg_details.zip.enc$'; fotapkg verify --keys $K " + FOTA_UPGRADE_PKG);
    }
    sh("cd /opt/bench; for m in pkg_details.zip.enc signed; do tr -d '\\r' <$m | sed '1,/^$/d' | base64 -d | "
       "openssl asn1parse -inform DER >$m.asn1; grep -q pkcs7 $m.asn1; [ $(grep -c l=inf $m.asn1) = 0 ]; "
       "done");
}

TEST_F(Update, BuilderRefusesAndLeavesNothing) {
    sh("cd /opt/bench; mkdir empty space; echo x >'space/a b'; cp -r $K other;"
       "openssl genrsa -aes256 -passout pass:other -out other/device.pem");
    for (const char* options :
         {"--content nowhere --keys $K", "--content space --keys $K",
          "--content content --keys $K --limit 1000", "--content content --keys empty"}) {
        sh(std::string("cd /opt/bench; ls >before; fotapkg package --source 1 --target 2 --description d ") +
           options + " -o out.zip && exit 1; ls | cmp - before");
    }
    package();
    sh("cd /opt/bench; cp /opt/qast/data/fota/upgrade.zip .; fotapkg verify --keys other upgrade.zip 2>err "
       "&& exit 1;"
       "grep -q 'pass phrase' err; fotapkg bundle --keys $K upgrade.zip -o /dev/null && exit 1; [ -c "
       "/dev/null ]");
}

}  // namespace
