# find_package(vesk-hub) gives an application vesk::vesk (the bus, with vesk::eventloop), vesk::lumo, vesk::sedes
# and vesk::uuidtypes. The transport itself is nothing to link: the bus loads it at run time.
include(${CMAKE_CURRENT_LIST_DIR}/vesk-hub-targets.cmake)
