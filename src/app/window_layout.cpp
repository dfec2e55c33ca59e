#include "app/window_layout.h"

#include <algorithm>
#include <map>

#include "app/main_window.h"
#include "resources/resource.h"
#include "stores/paths.h"

namespace kb::app {

using namespace kb::resources;

namespace {

using G = Guide;

// The controls that follow a guide; every other control stays where it is
// laid out, with the window's top left corner.
const std::map<int, Anchors>& AnchorTable() {
    // clang-format off
    static const std::map<int, Anchors> Table = {
        // The directory's row: the list takes the left column's width and
        // the row's height; the form stands beside it, its fields take the
        // rest of the width, its buttons keep to the right edge.
        {IDC_LABEL_DIRECTORY, {G::ColumnMiddle, G::ColumnMiddle, G::Start, G::Start}},
        {IDC_DIRECTORY_LIST, {G::Start, G::Split, G::Start, G::Split}},
        {IDC_FORM, {G::Split, G::Split, G::Start, G::Start}},
        {IDC_LABEL_ISDN, {G::Split, G::Split, G::Start, G::Start}},
        {IDC_LABEL_TELEPHONE, {G::Split, G::Split, G::Start, G::Start}},
        {IDC_LABEL_PROTOCOL, {G::Split, G::Split, G::Start, G::Start}},
        {IDC_LABEL_CARRIER, {G::Split, G::Split, G::Start, G::Start}},
        {IDC_NAME, {G::Split, G::End, G::Start, G::Start}},
        {IDC_NUMBER, {G::Split, G::End, G::Start, G::Start}},
        {IDC_PROTOCOL, {G::Split, G::End, G::Start, G::Start}},
        {IDC_CARRIER, {G::Split, G::End, G::Start, G::Start}},
        {IDC_56K, {G::Split, G::Split, G::Start, G::Start}},
        {IDC_2B, {G::Split, G::Split, G::Start, G::Start}},
        {IDC_V42, {G::Split, G::Split, G::Start, G::Start}},
        {IDC_ADD, {G::End, G::End, G::Start, G::Start}},
        {IDC_CHANGE, {G::End, G::End, G::Start, G::Start}},
        {IDC_DELETE, {G::End, G::End, G::Start, G::Start}},
        {IDC_NEW, {G::End, G::End, G::Start, G::Start}},
        {IDC_MAKE_FOLDER, {G::End, G::End, G::Start, G::Start}},
        {IDC_FOLDER_EMPTY, {G::End, G::End, G::Start, G::Start}},
        {IDC_FOLDER_FILLED, {G::End, G::End, G::Start, G::Start}},
        {IDC_HOT_EMPTY, {G::End, G::End, G::Start, G::Start}},
        {IDC_HOT_FILLED, {G::End, G::End, G::Start, G::Start}},
        {IDC_HOT_RETRIEVE, {G::End, G::End, G::Start, G::Start}},
        {IDC_HOT_SEND, {G::End, G::End, G::Start, G::Start}},
        {IDC_IGNORE_HOT, {G::End, G::End, G::Start, G::Start}},
        // The row of the file list and the log: the file list takes the
        // left column, the log the rest, the call's buttons keep to the
        // right edge; what stands below them goes down with them.
        {IDC_LABEL_FILE_LIST, {G::ColumnMiddle, G::ColumnMiddle, G::Split, G::Split}},
        {IDC_FILE_LIST, {G::Start, G::Split, G::Split, G::End}},
        {IDC_FILE_ADD, {G::Start, G::Start, G::End, G::End}},
        {IDC_FILE_DELETE, {G::ColumnMiddle, G::ColumnMiddle, G::End, G::End}},
        {IDC_FILE_CLEAR, {G::Split, G::Split, G::End, G::End}},
        {IDC_TOTAL_KB, {G::Start, G::Start, G::End, G::End}},
        {IDC_EST_TIME, {G::Split, G::Split, G::End, G::End}},
        {IDC_LABEL_LOG, {G::LogMiddle, G::LogMiddle, G::Split, G::Split}},
        {IDC_LOG, {G::Split, G::End, G::Split, G::End}},
        {IDC_BYTES_SEC, {G::Split, G::Split, G::End, G::End}},
        {IDC_CLEAR_LOG, {G::LogMiddle, G::LogMiddle, G::End, G::End}},
        {IDC_DIR_SCRATCH, {G::LogMiddle, G::LogMiddle, G::End, G::End}},
        {IDC_EMBLEM, {G::End, G::End, G::Split, G::Split}},
        {IDC_PROGRESS, {G::Split, G::End, G::End, G::End}},
        {IDC_SEND, {G::End, G::End, G::Split, G::Split}},
        {IDC_RETRIEVE, {G::End, G::End, G::Split, G::Split}},
        {IDC_DISCONNECT, {G::End, G::End, G::Split, G::Split}},
        // The bottom row keeps to the bottom edge; the desktop buttons to
        // the right one.
        {IDC_LABEL_IN_PROTOCOL, {G::Start, G::Start, G::End, G::End}},
        {IDC_IN_PROTOCOL, {G::Start, G::Start, G::End, G::End}},
        {IDC_IN_56K, {G::Start, G::Start, G::End, G::End}},
        {IDC_IN_2B, {G::Start, G::Start, G::End, G::End}},
        {IDC_IN_V42, {G::Start, G::Start, G::End, G::End}},
        {IDC_OPEN_INCOMING, {G::End, G::End, G::End, G::End}},
        {IDC_PROGRAM_1, {G::End, G::End, G::End, G::End}},
        {IDC_PROGRAM_2, {G::End, G::End, G::End, G::End}},
        {IDC_HELP, {G::End, G::End, G::End, G::End}},
        {IDC_OWN_NUMBER, {G::Start, G::Start, G::End, G::End}},
    };
    // clang-format on
    return Table;
}

// How far a guide moves when the window grows by growth. The left column
// takes a third of the width and the directory's row a third of the height:
// the log's lines are the longer ones, and the log the list that fills up.
// Every middle is worked out from the split, so that the guides keep their
// order at any growth.
int Offset(Guide guide, int growth) {
    const int split = growth / 3;
    switch (guide) {
        case Guide::Start:
            return 0;
        case Guide::ColumnMiddle:
            return split / 2;
        case Guide::Split:
            return split;
        case Guide::LogMiddle:
            return split + (growth - split) / 2;
        case Guide::End:
            return growth;
    }
    return 0;
}

bool Inside(const Box& inner, const Box& outer) {
    return inner.X >= outer.X && inner.Y >= outer.Y &&
           inner.X + inner.Width <= outer.X + outer.Width &&
           inner.Y + inner.Height <= outer.Y + outer.Height;
}

}  // namespace

Anchors AnchorsOf(int id) {
    const auto found = AnchorTable().find(id);
    return found == AnchorTable().end() ? Anchors{} : found->second;
}

Box GrownPlace(int id, const Box& laidOut, int grownX, int grownY) {
    const Anchors anchors = AnchorsOf(id);
    const int left = laidOut.X + Offset(anchors.Left, grownX);
    const int right = laidOut.X + laidOut.Width + Offset(anchors.Right, grownX);
    const int top = laidOut.Y + Offset(anchors.Top, grownY);
    const int bottom = laidOut.Y + laidOut.Height + Offset(anchors.Bottom, grownY);
    return Box{left, top, right - left, bottom - top};
}

std::string WindowPlaceFileBelow(const std::string& root) {
    return stores::StorePaths(root).WindowPlacePath;
}

std::optional<WindowPlace> PlaceToReopen(const std::optional<WindowPlace>& saved,
                                         const std::vector<Box>& screens, int smallestWidth,
                                         int smallestHeight) {
    if (!saved || saved->Normal.Width < smallestWidth || saved->Normal.Height < smallestHeight) {
        return std::nullopt;
    }
    const bool onScreen = std::any_of(screens.begin(), screens.end(), [&](const Box& screen) {
        return Inside(saved->Normal, screen);
    });
    return onScreen ? saved : std::nullopt;
}

Box OpeningSize(const Box& laidOut, const Box& smallest, const Box& room) {
    return Box{0, 0, std::max(smallest.Width, std::min(laidOut.Width, room.Width)),
               std::max(smallest.Height, std::min(laidOut.Height, room.Height))};
}

}  // namespace kb::app
