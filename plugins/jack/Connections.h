#pragma once

#include <string>
#include <vector>

#include <jack/jack.h>

namespace zevrant::jack {

// Ports of ours and what they are to be connected to: what the user asked for when the program started, and
// what somebody has connected since. A connection comes back when its other end or the server does, and is
// forgotten when somebody takes it away while both ends are there.
// Threads  One.
class Connections {
  public:
    // Connects our ports in order to those of another client, or to those whose names begin like this, as
    // soon as they are there. A single port over there serves all of ours.
    void ask(const std::vector<std::string>& ownPorts, const std::string& nameOfOthers, JackPortFlags others);

    // Looks at the graph and connects what is due. Our ports go by their names without the client's.
    void update(jack_client_t* client, const std::vector<jack_port_t*>& ownPorts);

    // The server is gone, and with it all ports.
    void noteEnd();

  private:
    enum class State { Connected, Missing, Gone };
    struct Connection {
        std::string own, other;  // without and with the name of its client
        State state = State::Gone;
    };
    struct Request {
        std::vector<std::string> ownPorts;
        std::string nameOfOthers;
        JackPortFlags others = JackPortIsOutput;
        bool isMet = false;
    };

    void meetRequests(jack_client_t* client);
    Connection& find(const std::string& own, const std::string& other);

    std::vector<Connection> connections;
    std::vector<Request> requests;
};

}  // namespace zevrant::jack
