// How the window's controls follow its edges when the window is larger or
// smaller than the size it was laid out for, and where the window opens.
//
// At its laid-out size every control lies where MainWindowLayout() puts it.
// Larger, the directory list, the file list and the log take the room: the
// width is shared between the left column (directory list, file list) and
// the log, the height between the directory's row and the row of the file
// list and the log, a third to the first and two to the second. Every other control keeps its size
// and moves with the edge it stands by, so that what stood beside or below a list still does. Each
// edge of a control follows one guide; a guide moves by a share of the growth that is the same for
// every control, so edges that touch at the laid-out size still touch at any size.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kb::app {

// The window's page (its surface below the menu bar) as laid out, in dialog
// units.
inline constexpr int LayoutWidth = 351;
inline constexpr int LayoutHeight = 250;
// The smallest page: as wide as laid out, 20 units lower, so that at twice the size the window with
// its frame and a desktop's panel still fits a screen 1000 pixels high.
inline constexpr int SmallestLayoutWidth = 351;
inline constexpr int SmallestLayoutHeight = 230;

// A drop-down's place is given with its list open; closed it is as high as
// an edit field, in dialog units.
inline constexpr int ClosedDropDownHeight = 14;

// What an edge of a control moves with as the window grows.
enum class Guide {
    Start,         // stays, with the left or top edge of the window
    ColumnMiddle,  // the middle of the left column (or of the top row)
    Split,         // the border between the column and the log (or the two rows)
    LogMiddle,     // the middle of the log (or of the lower row)
    End,           // the right or bottom edge of the window
};

struct Anchors {
    Guide Left = Guide::Start;
    Guide Right = Guide::Start;
    Guide Top = Guide::Start;
    Guide Bottom = Guide::Start;
};

// A rectangle in whatever measure the caller uses (dialog units or pixels).
struct Box {
    int X = 0;
    int Y = 0;
    int Width = 0;
    int Height = 0;
};

// The guides a control's edges follow.
Anchors AnchorsOf(int id);
// Where a control lies in a window whose page is larger than laid out by
// grownX and grownY (less for a negative growth); laidOut is the control's
// place at the laid-out size, in the same measure as the growth.
Box GrownPlace(int id, const Box& laidOut, int grownX, int grownY);

// Where a window was when the program last ended: its place with its frame
// and its size without, in the screen's pixels, as it was last shown neither
// maximised nor minimised; and whether it ended maximised.
struct WindowPlace {
    Box Normal;
    bool Maximised = false;
};

// The file in the installation's folder that keeps the window's place
// between runs; only the desktop program, which has a window to place,
// writes it.
std::string WindowPlaceFileBelow(const std::string& root);

// The place to open the window at: the place saved, when it is at least the
// smallest size and lies wholly on one of the screens; none otherwise, and
// the window opens at OpeningSize where the desktop puts it.
std::optional<WindowPlace> PlaceToReopen(const std::optional<WindowPlace>& saved,
                                         const std::vector<Box>& screens, int smallestWidth,
                                         int smallestHeight);
// The size a window opens at that has no place to reopen at: the laid-out
// size, made smaller where the room on the screen is smaller, but never
// smaller than the smallest size. Only Width and Height are used.
Box OpeningSize(const Box& laidOut, const Box& smallest, const Box& room);

}  // namespace kb::app
