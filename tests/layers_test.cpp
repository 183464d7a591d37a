// The include lines of the library against its layer note, LAYERS: a
// source file includes its own public header first, nothing from a higher
// layer but a named exception, never the umbrella header, and every file of
// the library has its place in the note.
#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <climits>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

const std::string kCore = std::string(FHCORE_SOURCE_DIR) + "/base/library/core";

std::vector<std::string> words(const std::string &text) {
    std::istringstream in(text);
    std::vector<std::string> out;
    for (std::string word; in >> word;) out.push_back(word);
    return out;
}

// The note, parsed: the layer of each module and private header, the
// modules behind each public header, and the exceptions.
struct Layers {
    std::map<std::string, int> layerOf;
    std::map<std::string, std::set<std::string>> modulesOf; // public header -> modules
    std::set<std::string> floor;
    std::map<std::string, std::set<std::string>> allowed; // module -> modules it may reach up to
    std::vector<std::string> errors;

    explicit Layers(const std::string &text) {
        std::istringstream in(text);
        int layers = 0;
        for (std::string line; std::getline(in, line);) {
            if (line.empty() || line[0] == '#') continue;
            const size_t colon = line.find(':');
            if (colon == std::string::npos) {
                errors.push_back("no colon: " + line);
                continue;
            }
            const std::vector<std::string> head = words(line.substr(0, colon));
            const std::vector<std::string> items = words(line.substr(colon + 1));
            if (head.size() == 2 && head[0] == "layer") {
                for (const std::string &item : items) layerOf[item] = layers;
                ++layers;
            } else if (head.size() == 2 && head[0] == "header") {
                modulesOf[head[1]].insert(items.begin(), items.end());
            } else if (head.size() == 1 && head[0] == "floor") {
                floor.insert(items.begin(), items.end());
            } else if (head.size() == 2 && head[0] == "allow") {
                allowed[head[1]].insert(items.begin(), items.end());
            } else {
                errors.push_back("unknown line: " + line);
            }
        }
    }

    // The modules a public header (as included, "core/x.h" or
    // "messages/x.h") belongs to: the header line's, else the module of its name.
    std::set<std::string> owners(const std::string &include) const {
        std::string name = include.rfind("core/", 0) == 0 ? include.substr(5) : include;
        if (auto it = modulesOf.find(name); it != modulesOf.end()) return it->second;
        if (name.size() > 2 && name.ends_with(".h") && name.find('/') == std::string::npos)
            return {name.substr(0, name.size() - 2)};
        return {};
    }

    // What is wrong with the include lines of file (a module's source
    // "x.cpp" or a private header "x.h"), one text per fault.
    std::vector<std::string> check(const std::string &file, const std::string &text) const {
        std::vector<std::string> faults;
        const bool source = file.ends_with(".cpp");
        const std::string self = source ? file.substr(0, file.size() - 4) : file;
        const auto layer = layerOf.find(self);
        if (layer == layerOf.end()) return {file + " has no layer in LAYERS"};
        std::istringstream in(text);
        bool first = true;
        for (std::string line; std::getline(in, line);) {
            if (line.rfind("#include \"", 0) != 0) continue;
            const std::string include = line.substr(10, line.find('"', 10) - 10);
            if (source && first && !owners(include).contains(self))
                faults.push_back(file + " does not include its own public header first but " + include);
            first = false;
            if (include == "core/fhcore.h") {
                faults.push_back(file + " includes the umbrella header");
                continue;
            }
            const bool isPublic = include.find('/') != std::string::npos;
            if (isPublic && floor.contains(include.substr(include.find('/') + 1))) continue;
            // A header of several modules stands in the lowest of their
            // layers, and an exception for any of them admits it.
            const std::set<std::string> targets = isPublic ? owners(include) : std::set<std::string>{include};
            int targetLayer = INT32_MAX;
            bool admitted = false;
            const auto allow = allowed.find(self);
            for (const std::string &target : targets) {
                if (const auto found = layerOf.find(target); found != layerOf.end())
                    targetLayer = std::min(targetLayer, found->second);
                if (allow != allowed.end() && (allow->second.contains(target) || allow->second.contains("*")))
                    admitted = true;
            }
            if (targetLayer == INT32_MAX)
                faults.push_back(file + " includes " + include + ", which has no layer");
            else if (targetLayer > layer->second && !admitted)
                faults.push_back(file + " reaches up to " + include);
        }
        return faults;
    }
};

std::string readFile(const std::string &path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<std::string> libraryFiles() {
    std::vector<std::string> files;
    if (DIR *dir = opendir(kCore.c_str())) {
        while (const dirent *entry = readdir(dir)) {
            const std::string name = entry->d_name;
            if (name.ends_with(".cpp") || name.ends_with(".h")) files.push_back(name);
        }
        closedir(dir);
    }
    return files;
}

const char *kSample = R"(layer frame: context tracer.h
layer strings: strbase text.h
layer files: filebase
layer configuration: cfg
header file.h: filebase
header config.h: cfg
floor: types.h
allow filebase: cfg
)";

} // namespace

TEST(LayersTest, EveryIncludeOfTheLibraryKeepsTheLayerOrder) {
    const Layers layers(readFile(kCore + "/LAYERS"));
    EXPECT_TRUE(layers.errors.empty()) << layers.errors.front();
    const std::vector<std::string> files = libraryFiles();
    ASSERT_GT(files.size(), 30u);
    for (const std::string &file : files)
        for (const std::string &fault : layers.check(file, readFile(kCore + "/" + file))) ADD_FAILURE() << fault;
}

TEST(LayersTest, TheCheckCatchesEachKindOfWrongInclude) {
    const Layers layers(kSample);
    ASSERT_TRUE(layers.errors.empty());
    const struct {
        const char *file, *text, *fault; // null fault: none
    } cases[] = {
        {"strbase.cpp", "#include \"core/strbase.h\"\n#include \"tracer.h\"\n#include \"core/types.h\"\n", nullptr},
        {"filebase.cpp", "#include \"core/file.h\"\n#include \"core/config.h\"\n", nullptr}, // allowed
        {"strbase.cpp", "#include \"core/strbase.h\"\n#include \"core/file.h\"\n",
         "strbase.cpp reaches up to core/file.h"},
        {"context.cpp", "#include \"core/context.h\"\n#include \"text.h\"\n", "context.cpp reaches up to text.h"},
        {"strbase.cpp", "#include \"text.h\"\n#include \"core/strbase.h\"\n",
         "strbase.cpp does not include its own public header first but text.h"},
        {"cfg.cpp", "#include \"core/config.h\"\n#include \"core/fhcore.h\"\n", "cfg.cpp includes the umbrella header"},
        {"cfg.cpp", "#include \"core/config.h\"\n#include \"internal.h\"\n", "cfg.cpp includes internal.h, which has no layer"},
        {"newmodule.cpp", "#include \"core/newmodule.h\"\n", "newmodule.cpp has no layer in LAYERS"},
        {"text.h", "#include \"core/file.h\"\n", "text.h reaches up to core/file.h"},
    };
    for (const auto &c : cases) {
        const std::vector<std::string> faults = layers.check(c.file, c.text);
        if (c.fault == nullptr) {
            EXPECT_TRUE(faults.empty()) << c.file << ": " << faults.front();
        } else {
            ASSERT_EQ(faults.size(), 1u) << c.fault;
            EXPECT_EQ(faults.front(), c.fault);
        }
    }
}
