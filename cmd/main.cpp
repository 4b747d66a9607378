#include "cmd/KivraConveyCmd.h"

int main(int argc, char** argv) {
    return kivraConveyMain(argc, argv);
}
