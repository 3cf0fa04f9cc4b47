# find_package(vesk-hub) gives an application vesk::vesk (the bus, with vesk::eventloop), vesk::toolkit, vesk::lumo,
# vesk::sedes and vesk::uuidtypes; vesk::uv-loop and vesk::glib-loop for a loop of its own; and vesk::relay, a hub
# for its tests. The transport itself is nothing to link: the bus loads it at run time.
include(${CMAKE_CURRENT_LIST_DIR}/vesk-hub-targets.cmake)
