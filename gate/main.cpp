#include "Gate.h"

int main(int argc, char** argv) {
    auto* gate = new vostrelka::Gate();
    gate->start_with_args(argc, argv);
    delete gate;
    return 0;
}
