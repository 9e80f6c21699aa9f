// The users table as operators write it, and the check of crypt(3) hashes in it, against the
// library's api layer itself.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "api/CCryptVerifier.h"
#include "api/CUsersFile.h"

namespace ZRT {
namespace Api {
namespace {

// Hashes of "pw", made with this machine's libcrypt.
const char* const YESCRYPT = "$y$j9T$teyRFIUTsoxBI/phLMFXO.$B0URrlqsF7v2wUQu7T2.k811Kf7DLp9fzQJj2vBLkI.";
const char* const SHA512 =
    "$6$xdL/qyIvTTSBeufE$oIKwUD5WYbzp8XfzV5.ceSVtJjpkqGcpoaqrRZ7Cy5NpN9xhE0BjShEtQidGUy7E21YhIriymXMWX5P8qRbyx0";
const char* const SHA256 = "$5$w9Xvz1u18eC1cbyM$zvo/wKjKGEK0.DiMVoqpTFqSB5FwMH3TGnv1onLU4n2";
const char* const BCRYPT = "$2b$05$FMeZ6wFClCcls3lF50m26ORj9mWHuewLeJH3Kw3yplJ9RkL5P3cQy";

// A folder for the test's files, removed with them at the end.
class TempDir {
public:
    TempDir()
    {
        char name[] = "/tmp/zrt-users-test-XXXXXX";
        m_path = mkdtemp(name);
    }
    ~TempDir()
    {
        for (const std::string& file : m_files)
            std::remove(file.c_str());
        rmdir(m_path.c_str());
    }
    std::string Write(const std::string& name, const std::string& text)
    {
        const std::string path = m_path + "/" + name;
        std::ofstream(path) << text;
        m_files.push_back(path);
        return path;
    }
    const std::string& Path() const { return m_path; }

private:
    std::string m_path;
    std::vector<std::string> m_files;
};

TEST(UsersFileTest, CommentsFollowWhiteSpaceAndSpacesAroundAnEntryAreNotPartOfIt)
{
    TempDir dir;
    const std::string path = dir.Write("users", "# staff\n  alice:pw # old\nbob:pw#1\n\tcarol:a b\t\r\n\n");
    CUsersFile::Users users;
    std::string error;
    ASSERT_TRUE(CUsersFile::Read(path, users, error)) << error;
    EXPECT_EQ(users, (CUsersFile::Users{{"alice", "pw"}, {"bob", "pw#1"}, {"carol", "a b"}}));
}

TEST(UsersFileTest, AFileThatNamesNobodyOrIsNoRegularFileIsAnError)
{
    TempDir dir;
    const std::string missing = dir.Path() + "/missing";
    for (const std::string& path : {dir.Write("empty", ""), dir.Write("comments", "# alice:pw\n   # bob:pw\n\n"),
                                    dir.Path(), missing, std::string("/dev/null")}) {
        CUsersFile::Users users{{"kept", "as it was"}};
        std::string error;
        EXPECT_FALSE(CUsersFile::Read(path, users, error)) << path;
        EXPECT_EQ(error.rfind(path + ": ", 0), 0u) << error;
        EXPECT_EQ(users.size(), 1u);
    }
    std::string error;
    CUsersFile::Users users;
    EXPECT_FALSE(CUsersFile::Read(dir.Write("bad", "alice:pw\nnocolon\n"), users, error));
    EXPECT_NE(error.find("/bad:2: "), std::string::npos) << error;
}

TEST(CryptVerifierTest, TellsHashesFromPasswords)
{
    for (const char* hash : {YESCRYPT, SHA512, SHA256, BCRYPT, "$2y$05$x", "$2a$05$x"})
        EXPECT_TRUE(CCryptVerifier::LooksLikeHash(hash)) << hash;
    for (const char* password : {"pw", "$money$", "$1$aLdBFdZe$eVTkLtsSApMxXVfoJAakL1", "y$", ""})
        EXPECT_FALSE(CCryptVerifier::LooksLikeHash(password)) << password;
}

#if defined(ZRT_WITH_CRYPT)

TEST(CryptVerifierTest, AcceptsTheRightPasswordForEachMethodAndNothingElse)
{
    const CCryptVerifier verifier;
    for (const char* hash : {YESCRYPT, SHA512, SHA256, BCRYPT}) {
        std::string error;
        ASSERT_TRUE(CCryptVerifier::IsUsable(hash, error)) << hash << ": " << error;
        EXPECT_TRUE(verifier.Verify(hash, "pw")) << hash;
        for (const std::string& wrong : {std::string("pW"), std::string(), std::string("pw\0", 3), std::string(hash)})
            EXPECT_FALSE(verifier.Verify(hash, wrong)) << hash << " took '" << wrong << "'";
        // A hash cut short never matches, whatever the password.
        EXPECT_FALSE(verifier.Verify(std::string(hash).substr(0, std::string(hash).size() - 4), "pw")) << hash;
    }
    EXPECT_FALSE(verifier.Verify("pw", "pw")); // a plain entry is the engine's to compare
}

TEST(CryptVerifierTest, RefusesHashesItCannotCheckWithTheirLineInAUsersFile)
{
    std::string error;
    for (const char* hash : {"$6$salt$with space", "$y$not*base64", "$2b$99$aaaaaaaaaaaaaaaaaaaaaa"}) {
        EXPECT_FALSE(CCryptVerifier::IsUsable(hash, error)) << hash;
        EXPECT_FALSE(error.empty());
    }
    TempDir dir;
    CUsersFile::Users users;
    ASSERT_TRUE(CUsersFile::Read(dir.Write("good", std::string("alice:") + YESCRYPT + " # pw\n"), users, error)) << error;
    EXPECT_EQ(users["alice"], YESCRYPT);
    EXPECT_FALSE(CUsersFile::Read(dir.Write("bad", "alice:pw\nbob:$y$no*good\n"), users, error));
    EXPECT_NE(error.find("/bad:2: the hash of 'bob'"), std::string::npos) << error;
}

TEST(CryptVerifierTest, VerifiesOnSeveralThreadsAtOnce)
{
    const CCryptVerifier verifier;
    std::vector<std::thread> threads;
    std::vector<int> good(4, 0);
    for (size_t i = 0; i < good.size(); ++i) {
        threads.emplace_back([&verifier, &good, i] {
            for (int round = 0; round < 5; ++round)
                good[i] += verifier.Verify(SHA512, "pw") && !verifier.Verify(SHA512, "wrong") ? 1 : 0;
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(good, std::vector<int>(4, 5));
}

#else

TEST(CryptVerifierTest, WithoutLibcryptHashesAreRefusedNotTakenAsPasswords)
{
    std::string user;
    std::string password;
    std::string error;
    EXPECT_FALSE(CCryptVerifier::IsAvailable());
    EXPECT_FALSE(CUsersFile::ParseEntry(std::string("alice:") + SHA512, user, password, error));
    EXPECT_NE(error.find("libcrypt"), std::string::npos) << error;
    EXPECT_FALSE(CCryptVerifier().Verify(SHA512, "pw"));
    EXPECT_TRUE(CUsersFile::ParseEntry("alice:pw", user, password, error));
}

#endif

} // namespace
} // namespace Api
} // namespace ZRT
