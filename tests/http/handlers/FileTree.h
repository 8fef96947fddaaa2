#pragma once
#include "e2e/Process.h"
#include "http/HTTPTestSupport.h"

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>

// What the file handler tests serve: a folder with a served root inside it and a secret beside
// the root (never to be reached from it). Removed with the fixture.
namespace orvel::http {

class FileTree {
public:
    FileTree() {
        std::filesystem::create_directories(root / "css");
        std::filesystem::create_directories(root / "files");
        write(folder / "secret", "secret");
        write(root / "index.HTML", "<p>hi</p>");
        write(root / "data", "raw");
        write(root / "css/site.css", "body{}");
        write(root / "files/a", "file a");
        write(root / "empty.json", "");
        write(root / "big.bin", big);
        ::mkfifo((root / "pipe").c_str(), 0600);
        std::filesystem::create_symlink(folder / "secret", root / "link-out");
        std::filesystem::create_symlink("css/site.css", root / "link-in");
    }

    test::TemporaryFolder temporary;
    const std::filesystem::path folder = temporary.path();
    const std::filesystem::path root = folder / "www" / "root";
    const std::string big = std::string(200 * 1024 + 7, 'b');  // streams, in more than one buffer

private:
    static void write(const std::filesystem::path& path, const std::string& text) { std::ofstream(path) << text; }
};

}  // namespace orvel::http
