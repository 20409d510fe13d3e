// A C++ host on the installed library and its C++ header.
#include <iostream>
#include <zevrant.hpp>

int main() {
    if (zevrant::Processor::create("no-such-file.model", 2, 48000.0)) return 1;
    try {
        zevrant::Model model("no-such-file.model");
        return 2;
    } catch (const zevrant::CreationError& error) {
        std::cout << error.what() << '\n';
    }
    return zevrant::getVectorArithmeticWrapperName().empty() ? 3 : 0;
}
