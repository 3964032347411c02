#pragma once
// The running instance's side of the single-instance connection: what a
// second launch's message asks of the controller, and the list of clients
// connected. The connection itself (a local socket named kMessageServerName,
// user-only) belongs to the front end, which calls these on the main thread.
#include <functional>
#include <string>
#include <vector>

namespace ambrel {

class AppController;

inline constexpr const char* kMessageServerName = "Tarnwell.Ambrel.server";

struct MessageClient {
  int id = 0;
  int connection = 0;  // the front end's handle of the client's connection
};

class MessageServer {
 public:
  explicit MessageServer(AppController& app) : app_(app) {}

  void addMessageClient(MessageClient client) { clients_.push_back(client); }
  bool removeMessageClient(int id);
  // From the last client to the first: the one on the dead connection goes,
  // and so does any for which `stillAnswers` fails.
  void connectionDidDie(int connection, const std::function<bool(const MessageClient&)>& stillAnswers);
  const std::vector<MessageClient>& clients() const { return clients_; }

  // "BringFront", "AlreadyRunning", or the path of a scan info file.
  void broadcastMessageString(const std::string& message);

 private:
  AppController& app_;
  std::vector<MessageClient> clients_;
};

}  // namespace ambrel
