#include "Cli.h"

int main(int argc, char** argv) {
    return velmorand::cli::run(argc, argv);
}
