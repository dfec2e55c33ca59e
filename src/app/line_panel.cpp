#include "app/line_panel.h"

#include "app/chosen_call.h"
#include "app/control_model.h"
#include "app/main_window.h"
#include "engine/call_end.h"
#include "engine/dialing.h"
#include "engine/pickup.h"
#include "line/line.h"
#include "line/profiles.h"
#include "platform/message_box.h"
#include "resources/resource.h"
#include "stores/installation.h"

namespace kb::app {

using namespace kb::engine;
using namespace kb::line;
using namespace kb::platform;
using namespace kb::resources;

namespace {

constexpr int LineControls[] = {
    IDC_SEND,   IDC_RETRIEVE, IDC_DISCONNECT, IDC_LABEL_IN_PROTOCOL, IDC_IN_PROTOCOL,
    IDC_IN_56K, IDC_IN_2B,    IDC_IN_V42,     IDC_OWN_NUMBER};
constexpr int IncomingSettings[] = {IDC_IN_PROTOCOL, IDC_IN_56K, IDC_IN_2B, IDC_IN_V42};

// A call to a number that the dial would shorten without a word is not
// placed; an empty number is left to the dial's own word about it.
bool CanBeDialled(const CallRequest& call) {
    if (call.Number.empty() || NumberCanBeDialled(call.Number)) {
        return true;
    }
    ShowMessageBox(UndiallableNumberMessage(call.Number));
    return false;
}

}  // namespace

std::span<const int> LinePanel::ControlIds() const {
    return LineControls;
}

EventOutcome LinePanel::OnButton(int id) {
    switch (id) {
        case IDC_SEND:
            OnSend();
            return {};
        case IDC_RETRIEVE:
            if (const CallRequest call = ChosenCall(); CanBeDialled(call)) {
                OnRetrieveClicked(window_.Engine(), call);
            }
            return {};
        case IDC_DISCONNECT:
            EndCall(window_.Engine(), CallEnd::Requested);
            return {};
        default:
            return WindowPanel::OnButton(id);
    }
}

EventOutcome LinePanel::OnSelection(int id, int row) {
    Controls().Select(id, row);
    if (id == IDC_IN_PROTOCOL) {
        StoreIncomingSetting(id);
    }
    return {};
}

EventOutcome LinePanel::OnBoxClicked(int id, bool /*checked*/) {
    StoreIncomingSetting(id);
    return {};
}

void LinePanel::OnSend() {
    if (const CallRequest call = ChosenCall(); CanBeDialled(call)) {
        OnSendClicked(window_.Engine(), call);
    }
}

void LinePanel::ShowCallPermissions(const Permissions& may) {
    ControlModel& controls = Controls();
    controls.Enable(IDC_SEND, may.Send);
    controls.Enable(IDC_RETRIEVE, may.Retrieve);
    controls.Enable(IDC_DISCONNECT, may.Disconnect);
}

void LinePanel::ShowIncomingPermissions(const Permissions& may) {
    for (int id : IncomingSettings) {
        Controls().Enable(id, may.EditFiles);
    }
}

void LinePanel::OfferAdapter(const std::vector<std::string>& protocolsNotOffered,
                             bool channelOptions) {
    ControlModel& controls = Controls();
    const std::string caption = window_.AdapterLine().OwnNumberCaption();
    if (!caption.empty()) {
        controls.SetText(IDC_OWN_NUMBER, caption);
        controls.Enable(IDC_OWN_NUMBER, true);
    }
    for (const std::string& protocol : protocolsNotOffered) {
        controls.DeleteRowWithText(IDC_IN_PROTOCOL, protocol);
    }
    if (channelOptions) {
        controls.Show(IDC_IN_2B, true);
        controls.Show(IDC_IN_V42, true);
    }
    controls.Select(IDC_IN_PROTOCOL, RowOfProtocol(stores_.Prefs, stores_.Prefs.IncomingProtocol));
    controls.Check(IDC_IN_56K, stores_.Prefs.Incoming56K != 0);
    controls.Check(IDC_IN_2B, stores_.Prefs.Incoming2B != 0);
    controls.Check(IDC_IN_V42, stores_.Prefs.IncomingV42 != 0);
}

void LinePanel::StoreIncomingSetting(int id) {
    ControlModel& controls = Controls();
    switch (id) {
        case IDC_IN_PROTOCOL:
            stores_.Prefs.IncomingProtocol =
                ProtocolOfRow(stores_.Prefs, controls.Selection(IDC_IN_PROTOCOL));
            break;
        case IDC_IN_56K:
            stores_.Prefs.Incoming56K = controls.Checked(id) ? 1 : 0;
            break;
        case IDC_IN_2B:
            stores_.Prefs.Incoming2B = controls.Checked(id) ? 1 : 0;
            break;
        case IDC_IN_V42:
            stores_.Prefs.IncomingV42 = controls.Checked(id) ? 1 : 0;
            break;
        default:
            return;
    }
    window_.AdapterLine().ReinitializeIncoming();
}

}  // namespace kb::app
