#pragma once

// The options both scene programs take: --fps N (above 0, at most 1000; 60 when not given) and
// --still (paint once and keep the picture).

#include <cstdio>
#include <cstdlib>
#include <string>
#include <variant>

namespace velmorand::bench {

struct SceneOptions {
    double fps = 60;
    bool still = false;
};

// The options, or the exit status once what was wrong is said on standard error under `program`.
inline std::variant<SceneOptions, int> parseSceneOptions(int argc, char** argv,
                                                         const char* program) {
    SceneOptions options;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--still") {
            options.still = true;
        } else if (argument == "--fps" && i + 1 < argc) {
            options.fps = std::atof(argv[++i]);
        } else {
            std::fprintf(stderr, "usage: %s [--fps N] [--still]\n", program);
            return 2;
        }
    }
    if (!(options.fps > 0 && options.fps <= 1000)) {
        std::fprintf(stderr, "%s: --fps must be within (0, 1000]\n", program);
        return 1;
    }
    return options;
}

}  // namespace velmorand::bench
