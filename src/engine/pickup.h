// The two ways a call starts from the window, and the pick-up folders that a
// correspondent fetches by calling in or that go out by themselves.
#pragma once

#include <cstdint>
#include <string>

// The buttons Send and Retrieve.
void OnSendClicked();
void OnRetrieveClicked();
// The record whose pick-up folder answers a retrieve request for the number:
// -1 none, 0 its folder is empty, n > 0 record n - 1.
int16_t FindRetrieveFolder(const std::string& number);
// Fills the send list from record index's pick-up folder.
void LoadPickUpFolder(int16_t index);
// The 15-second look at the hot folders.
void ScanHotFolders();
