#include "stores/preferences.h"

#include "platform/files.h"
#include "platform/message_box.h"
#include "stores/paths.h"

Preferences ThePreferences;

int LoadPreferences() {
    // The record is a static object, so it cannot fail to exist; a record
    // that could not be allocated does not arise.
    ThePreferences = Preferences{};

    File file;
    if (file.Open(PrefsPath, File::Mode::Read)) {
        // Whatever the file holds is taken as it stands: a short file leaves
        // the rest at 0, and its contents are not validated.
        static_cast<void>(file.Read(&ThePreferences, PreferencesSize));
        file.Close();
        return 1;
    }

    if (!file.Open(PrefsPath, File::Mode::CreateReadWrite)) {
        ShowMessageBox("Cannot create preferences file.");
        return 0;
    }
    ThePreferences.MaxPortSpeed = DefaultMaxPortSpeed;
    // A write error here leaves the record in memory usable for this run; the
    // next start reads what reached the disk.
    static_cast<void>(file.Write(&ThePreferences, PreferencesSize));
    file.Close();
    return 1;
}

bool SavePreferences() {
    File file;
    if (!file.Open(PrefsPath, File::Mode::Write)) {
        return false;
    }
    const bool written = file.Write(&ThePreferences, PreferencesSize);
    file.Close();
    return written;
}
