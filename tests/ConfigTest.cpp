#include <gtest/gtest.h>

#include <boost/property_tree/detail/file_parser_error.hpp>
#include <boost/property_tree/exceptions.hpp>
#include <string>
#include <utility>

#include "TestSupport.h"
#include "velmar/Config.h"

namespace {

using testsupport::TempDir;
using testsupport::writeFile;

velmar::Config load(const std::string& path) {
    return velmar::Config(path, velmar::Config::FormatByExtension, velmar::Config::InputFile);
}

std::string loadError(const std::string& path) {
    return testsupport::thrownText<boost::property_tree::file_parser_error>([&] { load(path); });
}

TEST(ConfigTest, ReadsDottedKeysFromEachFormatByExtension) {
    TempDir dir;
    const std::pair<const char*, const char*> cases[] = {
        {"c.json", R"({"Pipeline": {"logLevel": "DEBUG", "coreaffinity": 3}})"},
        {"c.ini", "[Pipeline]\nlogLevel=DEBUG\ncoreaffinity=3\n"},
        {"c.xml", "<Pipeline><logLevel>DEBUG</logLevel><coreaffinity>3</coreaffinity></Pipeline>"},
        {"c.info", "Pipeline\n{\n  logLevel DEBUG\n  coreaffinity 3\n}\n"},
    };
    for (const auto& [name, text] : cases) {
        SCOPED_TRACE(name);
        writeFile(dir.file(name), text);
        const velmar::Config config = load(dir.file(name));
        EXPECT_EQ(config.get<std::string>("Pipeline.logLevel", "INFO"), "DEBUG");
        EXPECT_EQ(config.get<int>("Pipeline.coreaffinity", -1), 3);
        EXPECT_TRUE(config.exists("Pipeline"));
        EXPECT_FALSE(config.exists("logLevel"));
    }
}

TEST(ConfigTest, TypedLookupsConvertOrFallBackToDefault) {
    TempDir dir;
    writeFile(dir.file("c.json"), R"({"PredictionModel": {
        "mm_per_inch": "25.4", "target_event_count": "4000000000", "num_predictions": 7,
        "model_name": "m v2.tflite", "t": "true", "f": "false", "one": "1", "zero": "0", "word": "abc", "yes": "yes"}})");
    const velmar::Config config = load(dir.file("c.json"));
    EXPECT_EQ(config.get<int>("PredictionModel.absent", 42), 42);
    EXPECT_EQ(config.get<int>("PredictionModel.num_predictions", 5), 7);
    EXPECT_FLOAT_EQ(config.get<float>("PredictionModel.mm_per_inch", 1.0f), 25.4f);
    EXPECT_EQ(config.get<unsigned int>("PredictionModel.target_event_count", 0u), 4000000000u);
    EXPECT_EQ(config.get<std::string>("PredictionModel.model_name", ""), "m v2.tflite");
    EXPECT_TRUE(config.get<bool>("PredictionModel.t", false) && config.get<bool>("PredictionModel.one", false));
    EXPECT_FALSE(config.get<bool>("PredictionModel.f", true) || config.get<bool>("PredictionModel.zero", true));
    EXPECT_THROW(config.get<bool>("PredictionModel.yes", false), boost::property_tree::ptree_bad_data);
    const std::string word =
        testsupport::thrownText<boost::property_tree::ptree_bad_data>([&] { config.get<int>("PredictionModel.word", 0); });
    EXPECT_NE(word.find("conversion of data to type"), std::string::npos) << word;
}

TEST(ConfigTest, UnreadableFilesThrowNamingTheFileAndLine) {
    TempDir dir;
    const std::string missing = dir.file("absent.json");
    EXPECT_NE(loadError(missing).find(missing), std::string::npos) << loadError(missing);
    const std::string broken = dir.file("broken.json");
    writeFile(broken, "{\n  \"Pipeline\": {\n    \"logLevel\": \"DEBUG\"\n    \"coreaffinity\": 3\n  }\n}\n");
    EXPECT_NE(loadError(broken).find(broken + "(4)"), std::string::npos) << loadError(broken);
}

TEST(ConfigTest, DeeplyNestedFilesAreRefusedBeforeParsing) {
    // Hundreds of thousands of levels would overflow the stack inside the recursive parsers.
    TempDir dir;
    const int deep = 200000;
    auto repeat = [](const std::string& text, int n) {
        std::string result;
        for (int i = 0; i < n; ++i) {
            result += text;
        }
        return result;
    };
    const std::pair<std::string, std::string> cases[] = {
        {"deep.json", "{\"a\":\n" + repeat("[", deep) + repeat("]", deep) + "}"},
        {"deep.xml", "<a>\n" + repeat("<b x=\"/>\">", deep) + repeat("</b>", deep) + "</a>"},
        {"deep.info", "a\n" + repeat("{ b ", deep) + repeat("}\n", deep)},
    };
    for (const auto& [name, text] : cases) {
        SCOPED_TRACE(name);
        writeFile(dir.file(name), text);
        // Line 2 holds the level past the limit of 64.
        EXPECT_NE(loadError(dir.file(name)).find(dir.file(name) + "(2)"), std::string::npos) << loadError(dir.file(name));
    }
    // Brackets inside strings and comments do not nest; a few real levels are fine.
    writeFile(dir.file("strings.json"), R"({"Pipeline": {"cpusetFile": ")" + repeat("[{", 100) + R"("}})");
    EXPECT_EQ(load(dir.file("strings.json")).get<std::string>("Pipeline.cpusetFile", "").size(), 200u);
    writeFile(dir.file("comments.info"), "; " + repeat("{", 100) + "\nPipeline\n{\n  logLevel DEBUG\n}\n");
    EXPECT_EQ(load(dir.file("comments.info")).get<std::string>("Pipeline.logLevel", ""), "DEBUG");
    writeFile(dir.file("ten.json"), repeat("{\"k\": ", 10) + "1" + repeat("}", 10));
    EXPECT_EQ(load(dir.file("ten.json")).get<int>("k.k.k.k.k.k.k.k.k.k", 0), 1);
}

// The INFO parser follows #include directives by recursing, with names taken from the working
// directory; a file that includes itself would recurse until a small thread stack runs out.
TEST(ConfigTest, InfoIncludesAreBoundedInDepthAndCount) {
    TempDir dir;
    const std::string self = dir.file("self.info");
    writeFile(self, "Pipeline\n{\n  logLevel DEBUG\n}\n#include \"" + self + "\"\n");
    const std::string a = dir.file("a.info");
    const std::string b = dir.file("b.info");
    writeFile(a, "; a and b include each other\n#include \"" + b + "\"\n");
    writeFile(b, "#include \"" + a + "\"\n");
    // Each level includes the next twice: few levels, but many files in all.
    for (int level = 0; level < 7; ++level) {
        const std::string next = dir.file("wide" + std::to_string(level + 1) + ".info");
        writeFile(dir.file("wide" + std::to_string(level) + ".info"),
                  "#include \"" + next + "\"\n#include \"" + next + "\"\n");
    }
    writeFile(dir.file("wide7.info"), "k 1\n");
    const std::pair<std::string, std::string> refused[] = {
        {self, self + "(5)"},
        {a, a + "(2)"},  // the ninth include in a row, made from a
        // wide0 -> wide1 and wide1 -> wide2 are the first two includes, wide2 holds 62 more below it:
        // the second include of wide1 is the 65th.
        {dir.file("wide0.info"), dir.file("wide1.info") + "(2)"},
    };
    // Every spelling the parser takes for a directive counts, blanks after the '#' and escapes included.
    std::vector<std::pair<std::string, std::string>> spelled(std::begin(refused), std::end(refused));
    for (const std::string directive : {"# include", "#\tinclude", "  #   include  ", "#include\t"}) {
        const std::string name = "spelled'" + std::to_string(spelled.size()) + ".info";
        const std::string path = dir.file(name);
        writeFile(path, "k 1\n" + directive + " \"" + dir.file("spelled\\'") + name.substr(8) + "\"\n");
        spelled.push_back({path, path + "(2)"});
    }
    for (const auto& [path, where] : spelled) {
        SCOPED_TRACE(path);
        const std::string error = loadError(path);
        EXPECT_NE(error.find(where), std::string::npos) << error;
        EXPECT_NE(error.find("includes nested deeper than 8 files or more than 64 in all"), std::string::npos)
            << error;
    }

    // Included files nest into the level of their directive, and count toward the nesting limit.
    const std::string inner = dir.file("inner.info");
    writeFile(inner, "logLevel VERBOSE\n");
    const std::string outer = dir.file("outer.info");
    writeFile(outer, "Pipeline\n{\n#include \"" + inner + "\"\n}\n");
    EXPECT_EQ(load(outer).get<std::string>("Pipeline.logLevel", ""), "VERBOSE");
    std::string deep;
    for (int i = 0; i < 40; ++i) {
        deep += "a" + std::to_string(i) + "\n{\n";
    }
    writeFile(inner, deep);
    writeFile(outer, deep + "#include \"" + inner + "\"\n");
    EXPECT_NE(loadError(outer).find(inner + "(50)"), std::string::npos) << loadError(outer);
}

}  // namespace
