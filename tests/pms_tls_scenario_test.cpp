// The PMS link over TLS, end to end against the simulator serving a
// certificate that the test makes; and the configuration check of its files.
#include <gtest/gtest.h>

#include "support_daemon.h"

using namespace std::chrono_literals;

namespace {

// Made with the openssl command in a folder of their own: a CA ("ca.pem",
// also alone in the hashed folder "cas"), a CA that signed nothing
// ("other.pem"), and a server certificate of the first for "pms.test" and
// 127.0.0.1 ("server.pem", "server.key").
class PmsTls : public ::testing::Test {
  protected:
    void SetUp() override {
        const std::string openssl = find_program({"openssl"});
        if (openssl.empty()) GTEST_SKIP() << "no openssl command";
        const std::string key = " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";
        const std::string script =
            "set -e; cd '" + certs.path() + "'; o='" + openssl + "'\n" +
            "for ca in ca other; do $o req -x509" + key +
            " -days 2 -subj /CN=$ca -keyout $ca.key -out $ca.pem; done\n"
            "$o req" +
            key + " -subj /CN=pms.test -keyout server.key -out server.csr\n" +
            "echo subjectAltName=DNS:pms.test,IP:127.0.0.1 > san\n"
            "$o x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 "
            "-extfile san -out server.pem\n"
            "mkdir cas; cp ca.pem cas/; $o rehash cas\n";
        child_process p;
        ASSERT_TRUE(p.start({"/bin/sh", "-c", script}));
        ASSERT_EQ(0, p.wait_exit(30s)) << p.output();
    }

    // A daemon whose PMS serves TLS; the daemon is not started.
    std::unique_ptr<daemon_run> tls_run() {
        auto run = std::make_unique<daemon_run>(false);
        EXPECT_TRUE(run->pms.serve_tls(certs.file("server.pem"), certs.file("server.key")));
        EXPECT_TRUE(run->pms.start());
        run->set("pms", "tls", "yes");
        return run;
    }

    temp_dir certs;
};

TEST_F(PmsTls, AVerifiedLinkCarriesRecordsAndAWrongCaOrNameIsRefusedBeforeAnyRecord) {
    {
        // The address 127.0.0.1 is checked against the certificate's IP entry.
        auto run = tls_run();
        run->set("pms", "tls_ca", certs.file("ca.pem")).set("fixes", "link_end", "yes");
        run->use_log_templates();
        ASSERT_TRUE(run->start());
        ASSERT_TRUE(run->pms.wait_link_active(15s)) << run->log();
        ASSERT_TRUE(run->wait_log("Received Link active packet from PMS")) << run->log();
        ASSERT_TRUE(run->play({"GI|RN101|GNSmith|GLEN|GSN|"}, "\tName: Smith")) << run->log();
        EXPECT_TRUE(wait_until([&] { return run->pbx_log().size() == 1; })) << run->log();
        // The end of the stream inside TLS is a lost link, as on plain TCP.
        run->pms.drop_connection();
        ASSERT_TRUE(wait_until([&] { return run->pms.connections() == 2; }, 5s)) << run->log();
        ASSERT_TRUE(run->pms.wait_link_active(10s)) << run->log();
        EXPECT_EQ(0, run->pms.tls_failures());
    }
    const struct {
        const char* ca;
        const char* name;
        const char* reason;
    } refusals[] = {
        {"other.pem", nullptr, "certificate verify failed: unable to get local issuer certificate"},
        {"cas", "wrong.test", "certificate verify failed: hostname mismatch"},
    };
    for (const auto& r : refusals) {
        auto run = tls_run();
        run->set("pms", "tls_ca", certs.file(r.ca));
        if (r.name) run->set("pms", "tls_server_name", r.name);
        ASSERT_TRUE(run->start());
        ASSERT_TRUE(wait_until([&] { return run->pms.tls_failures() >= 2; }, 15s)) << run->log();
        EXPECT_TRUE(has_line_like(run->log(), kStamp +
                                                  ":  ERROR[@]: link.cpp:@ in connect: PMS "
                                                  "127.0.0.1:" +
                                                  std::to_string(run->pms_port()) +
                                                  ": TLS handshake failed: " + r.reason))
            << run->log();
        EXPECT_TRUE(run->pms.frames().empty());
        EXPECT_EQ(0, run->pms.connections());
    }
}

TEST_F(PmsTls, TheCheckNamesTlsFilesThatCannotBeRead) {
    daemon_run run(false);
    const std::string missing = run.dir().file("missing.pem");
    run.set("pms", "tls", "yes")
        .set("pms", "tls_ca", missing)
        .set("pms", "tls_key", certs.file("server.key"))
        .set("pms", "write_timeout", "soon");
    run.write_config();
    child_process p;
    ASSERT_TRUE(p.start({orlanbeck_binary(), "-t", "-c", run.config_path()}));
    EXPECT_EQ(1, p.wait_exit(30s));
    const std::string out = p.output();
    for (const std::string& text :
         {"pms:tls_ca = \"" + missing + "\" cannot be read: No such file or directory",
          std::string("pms:tls_key is set without pms:tls_cert"),
          std::string("pms:write_timeout = \"soon\" is no number of seconds"),
          std::string(": 3 problems")})
        EXPECT_NE(std::string::npos, out.find(text)) << text << "\n" << out;
}

}  // namespace
