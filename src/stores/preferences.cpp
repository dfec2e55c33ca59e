#include "stores/preferences.h"

#include "platform/files.h"
#include "platform/message_box.h"

namespace kb::stores {

using namespace kb::platform;

bool LoadPreferences(Preferences& record, const std::string& path) {
    // The record is part of its installation, so it cannot fail to exist; a
    // record that could not be allocated does not arise.
    record = Preferences{};

    File file;
    if (file.Open(path, File::Mode::Read)) {
        // Whatever the file holds is taken as it stands: a short file leaves
        // the rest at 0, and its contents are not validated.
        static_cast<void>(file.Read(&record, PreferencesSize));
        file.Close();
        return true;
    }

    if (!file.Open(path, File::Mode::CreateReadWrite)) {
        ShowMessageBox("Cannot create preferences file.");
        return false;
    }
    record.MaxPortSpeed = DefaultMaxPortSpeed;
    // A write error here leaves the record in memory usable for this run; the
    // next start reads what reached the disk.
    static_cast<void>(file.Write(&record, PreferencesSize));
    file.Close();
    return true;
}

bool SavePreferences(const Preferences& record, const std::string& path) {
    File file;
    if (!file.Open(path, File::Mode::Write)) {
        return false;
    }
    const bool written = file.Write(&record, PreferencesSize);
    file.Close();
    return written;
}

}  // namespace kb::stores
