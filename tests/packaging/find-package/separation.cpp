// A C++ host on the installed separation library and its C++ header.
#include <iostream>
#include <zevrant_separation.hpp>

int main() {
    try {
        zevrant::Separation separation({.model = "no-such-model"});
        return 1;
    } catch (const zevrant::SeparationError& error) {
        std::cout << error.what() << '\n';
        return error.status == ZEVRANT_SEPARATION_NO_SUCH_MODEL ? 0 : 2;
    }
}
