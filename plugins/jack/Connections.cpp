#include "jack/Connections.h"

#include <algorithm>
#include <cstddef>
#include <memory>

namespace zevrant::jack {

namespace {

struct FreeNames {
    void operator()(const char** names) const { jack_free(static_cast<void*>(names)); }
};

// A list of names that JACK has made, which ends with a null pointer and may be one.
std::vector<std::string> takeNames(const char** list) {
    const std::unique_ptr<const char*, FreeNames> owned(list);
    std::vector<std::string> names;
    for (const char** name = list; name && *name; ++name) names.emplace_back(*name);
    return names;
}

}  // namespace

void Connections::ask(const std::vector<std::string>& ownPorts, const std::string& nameOfOthers,
                      JackPortFlags others) {
    requests.push_back({ownPorts, nameOfOthers, others});
}

Connections::Connection& Connections::find(const std::string& own, const std::string& other) {
    for (Connection& connection : connections)
        if (connection.own == own && connection.other == other) return connection;
    return connections.emplace_back(Connection{own, other});
}

void Connections::meetRequests(jack_client_t* client) {
    for (Request& request : requests) {
        if (request.isMet) continue;
        std::vector<std::string> names =
            takeNames(jack_get_ports(client, nullptr, JACK_DEFAULT_AUDIO_TYPE, request.others));
        std::erase_if(names,
                      [&](const std::string& name) { return !name.starts_with(request.nameOfOthers); });
        if (names.empty()) continue;
        for (std::size_t i = 0; i < request.ownPorts.size(); ++i)
            if (names.size() == 1 || i < names.size())
                find(request.ownPorts[i], names[std::min(i, names.size() - 1)]);
        request.isMet = true;
    }
}

void Connections::update(jack_client_t* client, const std::vector<jack_port_t*>& ownPorts) {
    meetRequests(client);
    for (jack_port_t* port : ownPorts) {
        const std::string own = jack_port_short_name(port);
        const std::vector<std::string> others = takeNames(jack_port_get_all_connections(client, port));
        for (const std::string& other : others) find(own, other).state = State::Connected;

        std::erase_if(connections, [&](Connection& connection) {
            if (connection.own != own ||
                std::find(others.begin(), others.end(), connection.other) != others.end())
                return false;
            if (!jack_port_by_name(client, connection.other.c_str())) {
                connection.state = State::Gone;
            } else if (connection.state == State::Gone) {
                const bool isInput = (jack_port_flags(port) & JackPortIsInput) != 0;
                const char* name = jack_port_name(port);
                const char* other = connection.other.c_str();
                jack_connect(client, isInput ? other : name, isInput ? name : other);
            } else if (connection.state == State::Connected) {
                connection.state = State::Missing;  // a port on its way out loses its connections first
            } else {
                return true;
            }
            return false;
        });
    }
}

void Connections::noteEnd() {
    for (Connection& connection : connections) connection.state = State::Gone;
}

}  // namespace zevrant::jack
