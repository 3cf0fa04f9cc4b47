// What the pieces of code in the documentation stand in: an application that has all of this.
#pragma once

#include <cstdio>

#include <tolvan/asio_event_loop.hpp>
#include <tolvan/lumo/v1/stderr_sink.hpp>
#include <tolvan/vesk/toolkit/hub_presence.hpp>
#include <tolvan/vesk/toolkit/typed_calls.hpp>
#include <tolvan/vesk/v1/connection.hpp>

namespace vesk = tolvan::vesk::v1;
namespace sedes = tolvan::sedes::v1;
namespace toolkit = tolvan::vesk::toolkit;
using namespace std::chrono_literals;

extern const std::shared_ptr<tolvan::asio_event_loop> loop;
extern vesk::publisher publisher;
extern vesk::subscriber subscriber;
extern vesk::reqrep_client client;
extern vesk::reqrep_server server;
