// The line's side of the window: the buttons that start and end a call
// (Send, Retrieve, Disconnect), the settings for incoming calls, and this
// end's own number.
#pragma once

#include <string>
#include <vector>

#include "app/window_panel.h"

namespace kb::stores {
class Installation;
}  // namespace kb::stores

namespace kb::app {

using stores::Installation;
class MainWindow;
struct Permissions;

class LinePanel final : public WindowPanel {
public:
    LinePanel(MainWindow& window, Installation& stores) : window_(window), stores_(stores) {}

    [[nodiscard]] std::span<const int> ControlIds() const override;
    EventOutcome OnButton(int id) override;
    EventOutcome OnSelection(int id, int row) override;
    EventOutcome OnBoxClicked(int id, bool checked) override;

    // The call buttons follow what the user may do.
    void ShowCallPermissions(const Permissions& may);
    // The incoming settings are shut while a call is up.
    void ShowIncomingPermissions(const Permissions& may);
    // After the adapter search: the own number, the incoming protocols the
    // adapter offers, its options if it has them, and the stored settings.
    void OfferAdapter(const std::vector<std::string>& protocolsNotOffered, bool channelOptions);
    // Send with what the list holds, as a drop on Send does after filling it.
    void OnSend();

private:
    void StoreIncomingSetting(int id);

    MainWindow& window_;
    Installation& stores_;
};

}  // namespace kb::app
