#include <iostream>

#include "controller.hpp"
#include "process.hpp"

int main() try {
    const thermostat::process self;
    const thermostat::controller regulating(self.loop);
    self.loop->run();
} catch (const std::exception& error) {
    std::cerr << "controller: " << error.what() << '\n';
    return 1;
}
