// Takes the URLs that the desktop's handlers would get, for tests.
#pragma once

#include <QObject>
#include <QUrl>

#include <string>
#include <vector>

namespace kb::test {

class UrlCatcher : public QObject {
    Q_OBJECT

public:
    std::vector<std::string> Caught() const { return caught_; }

public slots:
    void Catch(const QUrl& url) { caught_.push_back(url.toString().toStdString()); }

private:
    std::vector<std::string> caught_;
};

}  // namespace kb::test
