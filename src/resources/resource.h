// Resource numbers of the main window: controls, menu commands, timers,
// pictures, and the string table that holds the adapters' AT profiles.
#pragma once

#include <string_view>

namespace kb::resources {

// Controls of the main window.
inline constexpr int IDC_DIRECTORY_LIST = 1001;
inline constexpr int IDC_NAME = 1002;
inline constexpr int IDC_NUMBER = 1003;
inline constexpr int IDC_PROTOCOL = 1004;
inline constexpr int IDC_CARRIER = 1005;
inline constexpr int IDC_56K = 1006;
inline constexpr int IDC_ADD = 1007;
inline constexpr int IDC_CHANGE = 1008;
inline constexpr int IDC_DELETE = 1009;
inline constexpr int IDC_NEW = 1010;
inline constexpr int IDC_IN_56K = 1011;
inline constexpr int IDC_LOG = 1013;
inline constexpr int IDC_FILE_ADD = 1014;
inline constexpr int IDC_FILE_DELETE = 1015;
inline constexpr int IDC_FILE_CLEAR = 1016;
inline constexpr int IDC_CLEAR_LOG = 1017;
inline constexpr int IDC_SEND = 1018;
inline constexpr int IDC_DISCONNECT = 1019;
inline constexpr int IDC_IN_PROTOCOL = 1020;
inline constexpr int IDC_OPEN_INCOMING = 1021;
inline constexpr int IDC_PROGRAM_1 = 1022;
inline constexpr int IDC_PROGRAM_2 = 1023;
inline constexpr int IDC_HELP = 1024;
inline constexpr int IDC_TOTAL_KB = 1025;
inline constexpr int IDC_EST_TIME = 1026;
inline constexpr int IDC_BYTES_SEC = 1027;
inline constexpr int IDC_PROGRESS = 1028;
inline constexpr int IDC_OWN_NUMBER = 1029;
inline constexpr int IDC_MAKE_FOLDER = 1030;
inline constexpr int IDC_FILE_LIST = 1031;
inline constexpr int IDC_DIR_SCRATCH = 1032;
inline constexpr int IDC_FOLDER_EMPTY = 1033;
inline constexpr int IDC_FOLDER_FILLED = 1034;
inline constexpr int IDC_2B = 1035;
inline constexpr int IDC_V42 = 1036;
inline constexpr int IDC_IN_2B = 1037;
inline constexpr int IDC_IN_V42 = 1038;
inline constexpr int IDC_RETRIEVE = 1039;
inline constexpr int IDC_HOT_EMPTY = 1040;
inline constexpr int IDC_HOT_FILLED = 1041;
inline constexpr int IDC_FORM = 1046;
inline constexpr int IDC_HOT_RETRIEVE = 1047;
inline constexpr int IDC_HOT_SEND = 1048;
inline constexpr int IDC_LABEL_TELEPHONE = 1049;
inline constexpr int IDC_LABEL_ISDN = 1050;
inline constexpr int IDC_IGNORE_HOT = 1051;

// Menu commands. The About entry sits in the system menu and in the Help menu.
inline constexpr int IDM_ABOUTBOX = 16;
inline constexpr int ID_FILE_EXPORT_ENTRY = 32771;
inline constexpr int ID_FILE_EXIT = 32772;
inline constexpr int ID_PORT_SPEED_115200 = 32774;
inline constexpr int ID_PORT_SPEED_230400 = 32775;
// The Help menu's entry for the manual; the Help button does the same.
inline constexpr int ID_HELP_CONTENTS = 32776;
inline constexpr int ID_FILE_ADD_FOLDER = 32790;
// Position of the "&Port Speed" menu in the main menu.
inline constexpr int PortSpeedMenuPosition = 1;

// Timers. 2, 4 and 5 belong to the main window, 3 to the About box.
inline constexpr int TimerSplashOpen = 2;
inline constexpr int TimerSplashClose = 3;
inline constexpr int TimerFindAdapter = 4;
inline constexpr int TimerHotFolders = 5;

// Pictures and icons.
inline constexpr int IDR_MAINFRAME = 128;
inline constexpr int IDI_PLAIN_FILE = 130;
inline constexpr int IDI_PROGRAM_FILE = 132;
inline constexpr int IDI_FOLDER = 133;
inline constexpr int IDB_OPEN_INCOMING = 135;
inline constexpr int IDB_PROGRAM_1 = 136;
inline constexpr int IDB_PROGRAM_2 = 137;
inline constexpr int IDB_ABOUT = 138;
inline constexpr int IDB_EMBLEM = 139;
inline constexpr int IDB_MAKE_FOLDER = 140;
inline constexpr int IDB_FOLDER_EMPTY = 141;
inline constexpr int IDB_FOLDER_FILLED = 142;
inline constexpr int IDB_HOT_EMPTY = 144;
inline constexpr int IDB_HOT_FILLED = 145;

// The string table of AT profiles: ids 102 to 137, ten to a family. The id of
// a profile is ProfileStringBase + the family's model number + the slot.
inline constexpr int ProfileStringBase = 102;
inline constexpr int ProfileStringLast = 137;

// The text of a string-table entry; empty for an id the table lacks.
std::string_view LoadResourceString(int id);

}  // namespace kb::resources
