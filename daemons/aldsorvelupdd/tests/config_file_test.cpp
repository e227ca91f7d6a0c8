// updater.conf: the atomic rewrite and the lookup of the output file.
#include "config.h"
#include "fixture.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <set>
#include <sys/stat.h>
#include <vector>

namespace {

// Every entry of a directory but "." and "..".
std::set<std::string> entries_of(const std::string& dir) {
    std::set<std::string> names;
    if (DIR* d = ::opendir(dir.c_str())) {
        while (dirent* e = ::readdir(d)) {
            std::string name = e->d_name;
            if (name != "." && name != "..") names.insert(name);
        }
        ::closedir(d);
    }
    return names;
}

json_t* parse(const char* text) {
    json_error_t error;
    json_t* value = json_loads(text, 0, &error);
    EXPECT_NE(value, nullptr) << error.text;
    return value;
}

}  // namespace

class ConfigFileTest : public DaemonTest {
protected:
    void SetUp() override {
        DaemonTest::SetUp();
        // A temporary file left behind by an earlier case must not hide or
        // fake one left by this case.
        for (const std::string& name : entries_of(config_dir())) std::remove((config_dir() + "/" + name).c_str());
    }

    // The source and target of the one rename that write_config made.
    std::pair<std::string, std::string> renamed() const {
        auto calls = dbl::journal("rename ");
        EXPECT_EQ(calls.size(), 1u);
        if (calls.size() != 1) return {};
        std::string args = calls[0].substr(7);
        auto space = args.find(' ');
        return {args.substr(0, space), args.substr(space + 1)};
    }

    std::vector<std::string> log_entries() const { return dbl::journal("log "); }

    static const std::string kOldText;
};

const std::string ConfigFileTest::kOldText = "{\"var_path\": \"/old\",\n  \"keep\": [1, 2]}\n\x01 trailing bytes";

// ---- write_config --------------------------------------------------------

TEST_F(ConfigFileTest, WritesIndentedDocumentInOrderWithoutEscapingAndRenamesIntoPlace) {
    write_file(config_file(), kOldText);
    ::chmod(config_file().c_str(), 0600);
    json_ptr document(parse(R"({"zeta": 1, "alpha": ["a", "b"], "var_path": "/var/lib/x", )"
                            R"("name": "Grüße 日本", "real": 0.1, "empty": {}, "on": true, "none": null})"));

    ASSERT_TRUE(write_config(document));

    // One member per line, four spaces per level, ": " and "," as the
    // library writes them for indented output, members in insertion order,
    // UTF-8 and "/" as they are, reals at full precision.
    EXPECT_EQ(read_file(config_file()),
              "{\n"
              "    \"zeta\": 1,\n"
              "    \"alpha\": [\n"
              "        \"a\",\n"
              "        \"b\"\n"
              "    ],\n"
              "    \"var_path\": \"/var/lib/x\",\n"
              "    \"name\": \"Grüße 日本\",\n"
              "    \"real\": 0.10000000000000001,\n"
              "    \"empty\": {},\n"
              "    \"on\": true,\n"
              "    \"none\": null\n"
              "}");

    // The new file was made beside updater.conf and moved over it; it keeps
    // the temporary file's mode rather than the old file's.
    auto moved = renamed();
    EXPECT_EQ(moved.second, config_file());
    ASSERT_GT(moved.first.size(), config_dir().size() + 1);
    EXPECT_EQ(moved.first.substr(0, config_dir().size() + 1), config_dir() + "/");
    EXPECT_EQ(moved.first.find('/', config_dir().size() + 1), std::string::npos);
    EXPECT_EQ(entries_of(config_dir()), std::set<std::string>{"updater.conf"});
    struct stat st {};
    ASSERT_EQ(::stat(config_file().c_str(), &st), 0);
    const mode_t mask = ::umask(0);
    ::umask(mask);
    EXPECT_EQ(st.st_mode & 07777, 0644 & ~mask);

    // Borrowed only: the caller's one reference is untouched.
    EXPECT_EQ(document.get()->refcount, 1u);
    EXPECT_TRUE(log_entries().empty());
}

TEST_F(ConfigFileTest, CreatesTheFileWhenThereWasNone) {
    json_ptr document(parse(R"(["only", "an", "array"])"));
    ASSERT_TRUE(write_config(document));
    EXPECT_EQ(read_file(config_file()), "[\n    \"only\",\n    \"an\",\n    \"array\"\n]");
    EXPECT_EQ(entries_of(config_dir()), std::set<std::string>{"updater.conf"});
}

TEST_F(ConfigFileTest, FailedRenameLogsBothPathsAndErrnoAndLeavesTheOldFile) {
    write_file(config_file(), kOldText);
    json_ptr document(parse(R"({"var_path": "/new"})"));
    dbl::push("rename", dbl::fail(EXDEV));

    EXPECT_FALSE(write_config(document));

    auto moved = renamed();
    ASSERT_FALSE(moved.first.empty());
    EXPECT_EQ(log_entries(), (std::vector<std::string>{"log error write_config: failed to rename " + moved.first +
                                                       " to " + config_file() + " (errno = 18)"}));
    auto lines = dbl::log_lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, 0);
    EXPECT_EQ(read_file(config_file()), kOldText);
    EXPECT_EQ(entries_of(config_dir()), std::set<std::string>{"updater.conf"});
}

TEST_F(ConfigFileTest, FailedDumpLogsAndRemovesTheTemporaryFile) {
    // Two documents that the JSON library honestly refuses to write: a root
    // that is neither object nor array (refused before any byte is written),
    // and a string that is not UTF-8 (refused half-way through the file).
    json_t* bad_text = json_object();
    json_object_set_new(bad_text, "good", json_string("first"));
    json_object_set_new(bad_text, "bad", json_stringn_nocheck("\xff\xfe", 2));
    json_t* documents[] = {json_integer(5), bad_text};

    for (json_t* raw : documents) {
        SCOPED_TRACE(json_is_integer(raw) ? "integer root" : "invalid UTF-8");
        dbl::reset();
        write_file(config_file(), kOldText);
        json_ptr document(raw);

        EXPECT_FALSE(write_config(document));

        EXPECT_EQ(log_entries(), std::vector<std::string>{"log error write_config: failed to dump new config"});
        auto lines = dbl::log_lines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].level, 0);
        EXPECT_TRUE(dbl::journal("rename").empty());
        EXPECT_EQ(read_file(config_file()), kOldText);
        EXPECT_EQ(entries_of(config_dir()), std::set<std::string>{"updater.conf"});
    }
}

TEST_F(ConfigFileTest, NoTemporaryFileMeansFalseAndNothingElse) {
    write_file(config_file(), kOldText);
    json_ptr document(parse(R"({"var_path": "/new"})"));
    dbl::always("open", dbl::fail(EACCES));

    EXPECT_FALSE(write_config(document));

    dbl::pass("open");
    EXPECT_FALSE(dbl::journal("open ").empty());
    EXPECT_TRUE(dbl::journal("rename").empty());
    EXPECT_TRUE(dbl::log_lines().empty());
    EXPECT_EQ(read_file(config_file()), kOldText);
    EXPECT_EQ(entries_of(config_dir()), std::set<std::string>{"updater.conf"});
}

// ---- get_redirection_file ------------------------------------------------

TEST_F(ConfigFileTest, OutputFileIsVarPathPlusTheLogNameVerbatim) {
    const struct {
        const char* document;
        const char* expected;
    } cases[] = {
        {R"({"var_path": "/var/lib/x"})", "/var/lib/x/sorvelupd.out_err.log"},
        {R"({"var_path": "/var/lib/x/"})", "/var/lib/x//sorvelupd.out_err.log"},
        {R"({"var_path": ""})", "/sorvelupd.out_err.log"},
        {R"({"var_path": " rel/../dir é "})", " rel/../dir é /sorvelupd.out_err.log"},
        {R"({"a": 1, "VAR_PATH": "/no", "var_path": "/yes", "z": {"var_path": "/nested"}})",
         "/yes/sorvelupd.out_err.log"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.document);
        dbl::reset();
        write_file(config_file(), c.document);

        EXPECT_EQ(get_redirection_file(), c.expected);
        EXPECT_TRUE(dbl::journal().empty());
    }
}

TEST_F(ConfigFileTest, VarPathThatIsNotAStringCountsAsMissing) {
    const char* documents[] = {
        R"({"other": "/var/lib/x"})",   R"({"VAR_PATH": "/var/lib/x"})", R"({"var_path": 5})",
        R"({"var_path": 1.5})",         R"({"var_path": true})",         R"({"var_path": false})",
        R"({"var_path": null})",        R"({"var_path": ["/x"]})",       R"({"var_path": {"p": "/x"}})",
        R"(["var_path", "/var/lib/x"])", R"({})",                        R"([])",
    };
    for (const char* document : documents) {
        SCOPED_TRACE(document);
        dbl::reset();
        alderrno.clear();
        write_file(config_file(), document);

        EXPECT_EQ(get_redirection_file(), "");
        EXPECT_EQ(alderrno.code(), 2);
        EXPECT_STREQ(alderrno.message(), "failed to locate 'var_path' option in config json");
        EXPECT_TRUE(dbl::journal().empty());
    }
}

TEST_F(ConfigFileTest, UnloadableFileIsReportedInErrorStorageOnly) {
    const char* documents[] = {
        nullptr,                      // no file at all
        "",                           // empty
        R"({"var_path": "/x")",       // cut short
        "{\"var_path\": \"/x\"} {}",  // trailing garbage
        R"("/var/lib/x")",            // a bare string is not a document
        "{\"var_path\": \"\xff\"}",   // not UTF-8
    };
    for (const char* document : documents) {
        SCOPED_TRACE(document ? document : "(missing)");
        dbl::reset();
        alderrno.clear();
        std::remove(config_file().c_str());
        if (document) write_file(config_file(), document);

        EXPECT_EQ(get_redirection_file(), "");
        EXPECT_EQ(alderrno.code(), 2);
        EXPECT_STREQ(alderrno.message(), "failed to load config json");
        EXPECT_TRUE(dbl::journal().empty());
    }
}

TEST_F(ConfigFileTest, EveryLookupReadsTheFileAfresh) {
    write_file(config_file(), R"({"var_path": "/first"})");
    EXPECT_EQ(get_redirection_file(), "/first/sorvelupd.out_err.log");
    write_file(config_file(), R"({"var_path": "/second"})");
    EXPECT_EQ(get_redirection_file(), "/second/sorvelupd.out_err.log");
    std::remove(config_file().c_str());
    EXPECT_EQ(get_redirection_file(), "");
    EXPECT_EQ(alderrno.code(), 2);
}
