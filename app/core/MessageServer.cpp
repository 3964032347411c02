#include "core/MessageServer.h"

#include "core/AppController.h"

namespace ambrel {

bool MessageServer::removeMessageClient(int id) {
  for (auto it = clients_.begin(); it != clients_.end(); ++it)
    if (it->id == id) {
      clients_.erase(it);
      break;
    }
  return true;
}

void MessageServer::connectionDidDie(int connection, const std::function<bool(const MessageClient&)>& stillAnswers) {
  for (size_t i = clients_.size(); i-- > 0;) {
    const MessageClient& c = clients_[i];
    if (c.connection == connection || (stillAnswers && !stillAnswers(c)))
      clients_.erase(clients_.begin() + static_cast<std::ptrdiff_t>(i));
  }
}

void MessageServer::broadcastMessageString(const std::string& message) {
  if (message == "BringFront") app_.bringMainWindowToFront();
  else if (message == "AlreadyRunning") app_.displayAlreadyRunningPanel();
  else app_.openScanInfoFile(message);
}

}  // namespace ambrel
