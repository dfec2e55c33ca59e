// Placing a call and following the adapter's result codes until the data
// channel is up, on the calling and the answering side.
#pragma once

// Gives the adapter the outgoing profile and dials the number in IDC_NUMBER.
// Runs on the main thread, with no link up.
void PlaceCall();
// Reads one line from the idle or dialling adapter and acts on it: RING is
// answered, CONNECT takes the link up, NO CARRIER, BUSY and NO DIALTONE end it.
void HandleLineEvent();
// Every hot folder must be seen unchanged twice again before it goes out.
void ClearHotFolderCounters();
