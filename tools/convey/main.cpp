#include "tools/convey/Tool.h"

int main(int argc, char** argv) {
    return conveyToolMain(argc, argv);
}
