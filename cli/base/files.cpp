// Reading and writing of files.h. No state.
#include "base/files.h"

#include "base/failure.h"
#include "base/output.h"

#include <fstream>
#include <iostream>
#include <iterator>

namespace {

// More than any value or registry text needs.
constexpr size_t kLargestFile = size_t{256} << 20;

std::string ReadAll(std::istream& stream, const std::string& path) {
    std::string content;
    char block[65536];
    do {
        stream.read(block, sizeof block);
        content.append(block, static_cast<size_t>(stream.gcount()));
    } while (stream && content.size() <= kLargestFile);
    if (stream.bad() || content.size() > kLargestFile)
        throw Failure{Exit::False, "cannot read " + path, content.size() > kLargestFile ? "it is too large" : "", ""};
    return content;
}

} // namespace

std::string ReadWholeFile(const std::string& path) {
    if (path == "-") return ReadAll(std::cin, "standard input");
    std::ifstream stream(path, std::ios::binary);
    if (!stream) throw Failure{Exit::False, "cannot open " + path, "", "check its name and your right to read it"};
    return ReadAll(stream, path);
}

void WriteWholeFile(const std::string& path, const std::string& content) {
    if (path == "-") {
        PrintText(content);
        return;
    }
    std::ofstream stream(path, std::ios::binary | std::ios::trunc);
    stream.write(content.data(), static_cast<std::streamsize>(content.size()));
    stream.close();
    if (!stream) throw Failure{Exit::False, "cannot write " + path, "", "check its folder and your right to write it"};
}
