#include "ui_fixture.h"

#include <QAbstractButton>
#include <QAbstractItemView>
#include <QApplication>
#include <QComboBox>
#include <QFileDialog>
#include <QLabel>
#include <QMessageBox>
#include <QMimeData>
#include <QProgressBar>
#include <QPushButton>
#include <QTest>
#include <QTreeWidget>
#include <QUrl>

#include <future>
#include <utility>

#include "app/control_model.h"
#include "app/main_window.h"
#include "platform/event_loop.h"
#include "platform/files.h"
#include "support/installation.h"
#include "ui/about_box.h"

namespace kb::test {

using namespace kb::app;
using namespace kb::platform;
using namespace std::chrono_literals;

bool WaitUntil(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        QTest::qWait(10);
    }
    return true;
}

std::optional<bool> OnMainLoop(const std::function<bool()>& work) {
    auto answer = std::make_shared<std::promise<bool>>();
    std::future<bool> result = answer->get_future();
    MainLoop().Post([answer, work] { answer->set_value(work()); });
    if (!WaitUntil([&] { return result.wait_for(0s) == std::future_status::ready; })) {
        return std::nullopt;
    }
    return result.get();
}

ModalAnswerer::ModalAnswerer() {
    connect(&timer_, &QTimer::timeout, this, [this] { Answer(); });
    timer_.start(20);
}

void ModalAnswerer::Answer() {
    QWidget* modal = QApplication::activeModalWidget();
    if (auto* box = qobject_cast<QMessageBox*>(modal)) {
        if (instead_) {
            std::exchange(instead_, nullptr)();
            return;
        }
        messages_.push_back(box->text().toStdString());
        // Every message's text can be selected and copied.
        const Qt::TextInteractionFlags copying =
            Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard;
        EXPECT_EQ(box->textInteractionFlags() & copying, copying) << messages_.back();
        // Each box is pictured, so that every message the tests bring up can
        // be looked at as the user sees it.
        const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
        box->grab().save(QString::fromStdString(ScreensFolder() + "/message-" +
                                                (test != nullptr ? test->name() : "none") + "-" +
                                                std::to_string(messages_.size()) + ".png"));
        if (escape_) {
            // A box that Esc does not close is noted again at the next look.
            QTest::keyClick(box, Qt::Key_Escape);
            return;
        }
        // A question is answered Yes: the user meant what they did.
        QAbstractButton* ok = box->button(QMessageBox::Ok);
        (ok != nullptr ? ok : box->button(QMessageBox::Yes))->click();
        return;
    }
    if (auto* dialog = qobject_cast<QFileDialog*>(modal)) {
        titles_.push_back(dialog->windowTitle().toStdString());
        std::optional<std::string> answer;
        const QStringList proposed = dialog->selectedFiles();
        proposals_.push_back(proposed.isEmpty() ? std::string() : proposed.first().toStdString());
        if (!answers_.empty()) {
            answer = answers_.front();
            answers_.pop_front();
        }
        if (answer) {
            // A dialog takes a chosen file into its name field only while
            // the field has no focus; once shown, it may have taken it.
            if (QWidget* focused = dialog->focusWidget()) {
                focused->clearFocus();
            }
            dialog->selectFile(QString::fromStdString(*answer));
            // The dialog takes the file as its own OK would.
            static_cast<QDialog*>(dialog)->accept();
        } else {
            dialog->reject();
        }
    }
}

void UiTest::SetUp() {
    previousFolder_ = CurrentFolder().value_or("");
    ASSERT_TRUE(ChangeCurrentFolder(folder_.Path()));
    BlockPorts(folder_.Path());
    answerer_ = std::make_unique<ModalAnswerer>();
    frontEnd_ = std::make_unique<ui::FrontEnd>();
    frontEnd_->Start();
}

void UiTest::TearDown() {
    if (frontEnd_ && !frontEnd_->Ended()) {
        frontEnd_->RequestClose();
        EXPECT_TRUE(WaitUntil([&] { return frontEnd_->Ended(); }));
    }
    frontEnd_.reset();
    answerer_.reset();
    // A test skipped before its set-up has no folder to go back to.
    if (!previousFolder_.empty()) {
        EXPECT_TRUE(ChangeCurrentFolder(previousFolder_));
    }
}

void UiTest::WaitForStart() {
    ASSERT_TRUE(WaitUntil([this] {
        return OnMainLoop([this] {
                   const MainWindow* window = frontEnd_->Window()->load();
                   return window != nullptr && window->StartIsOver();
               })
            .value_or(false);
    }));
    ExpectWidgetsToFollow();
}

void UiTest::ExpectWidgetsToFollow() {
    std::vector<std::string> left;
    WaitUntil([&] {
        left = Differences();
        return left.empty();
    });
    EXPECT_TRUE(left.empty()) << left.front();
}

namespace {

// The rows a list widget shows, as the model's rows are written.
std::vector<std::string> ShownRows(QWidget* widget) {
    const auto* box = qobject_cast<QComboBox*>(widget);
    const auto* view = qobject_cast<QAbstractItemView*>(widget);
    const auto* tree = qobject_cast<QTreeWidget*>(widget);
    const QAbstractItemModel* model = box != nullptr ? box->model() : view->model();
    std::vector<std::string> rows;
    for (int row = 0; row < model->rowCount(); ++row) {
        rows.push_back(model->index(row, 0).data().toString().toStdString());
        if (tree != nullptr) {
            rows.back() += "|" + tree->topLevelItem(row)->text(1).toStdString() + "|" +
                           (tree->topLevelItem(row)->icon(0).isNull() ? "no icon" : "icon");
        }
    }
    return rows;
}

std::vector<std::string> ModelRows(const ControlState& state) {
    std::vector<std::string> rows;
    for (const ListRow& row : state.Rows) {
        rows.push_back(state.Kind == ControlKind::ListView ? row.Text + "|" + row.Detail + "|icon"
                                                           : row.Text);
    }
    return rows;
}

int ShownSelection(QWidget* widget) {
    if (auto* box = qobject_cast<QComboBox*>(widget)) {
        return box->currentIndex();
    }
    const QModelIndexList selected =
        qobject_cast<QAbstractItemView*>(widget)->selectionModel()->selectedIndexes();
    return selected.isEmpty() ? -1 : selected.first().row();
}

bool ShowsPicture(QWidget* widget) {
    if (auto* label = qobject_cast<QLabel*>(widget)) {
        return !label->pixmap().isNull();
    }
    if (auto* button = qobject_cast<QAbstractButton*>(widget)) {
        return !button->icon().isNull();
    }
    return false;
}

}  // namespace

std::vector<std::string> UiTest::Differences() const {
    std::vector<std::string> differences;
    for (const ControlState& state : Controls().AllStates()) {
        const auto differ = [&](const std::string& what, bool same) {
            if (!same) {
                differences.push_back("control " + std::to_string(state.Id) + " " + what);
            }
        };
        if (state.Kind == ControlKind::Window) {
            differ("caption", View().windowTitle().toStdString() == state.Text);
            continue;
        }
        if (state.Id == IDD_ABOUTBOX) {
            differ("shown", View().About()->isVisible() == state.Shown);
            differ("text", View().About()->VersionLabel()->text().toStdString() == state.Text);
            differ("picture", ShowsPicture(View().About()->OkButton()) == (state.Picture != 0));
            continue;
        }
        QWidget* widget = View().WidgetOf(state.Id);
        if (widget == nullptr) {
            differ("has no widget", false);
            continue;
        }
        differ("tooltip", widget->toolTip().toStdString() == ControlTip(state.Id));
        differ("accessible name", widget->accessibleName().toStdString() == ControlTip(state.Id));
        differ("enabled", widget->isEnabled() == state.Enabled);
        differ("shown", !widget->isHidden() == state.Shown);
        switch (state.Kind) {
            case ControlKind::CheckBox:
            case ControlKind::RadioButton:
                differ("checked",
                       qobject_cast<QAbstractButton*>(widget)->isChecked() == state.Checked);
                [[fallthrough]];
            case ControlKind::Label:
            case ControlKind::Edit:
            case ControlKind::Button:
                // Labels, edit fields and buttons all show theirs as "text".
                differ("text", widget->property("text").toString().toStdString() == state.Text);
                break;
            case ControlKind::Picture:
            case ControlKind::PictureButton:
                differ("picture", ShowsPicture(widget) == (state.Picture != 0));
                break;
            case ControlKind::ListView: {
                auto* tree = qobject_cast<QTreeWidget*>(widget);
                std::vector<std::string> headers;
                for (int column = 0; column < tree->columnCount(); ++column) {
                    headers.push_back(tree->headerItem()->text(column).toStdString());
                }
                differ("columns", headers == state.Columns);
                [[fallthrough]];
            }
            case ControlKind::ListBox:
            case ControlKind::DropDown:
                differ("rows", ShownRows(widget) == ModelRows(state));
                differ("selection", ShownSelection(widget) == state.Selection);
                break;
            case ControlKind::ProgressBar:
                differ("position", qobject_cast<QProgressBar*>(widget)->value() == state.Position);
                break;
            case ControlKind::Window:
                break;
        }
    }
    return differences;
}

void UiTest::Drop(int id, const std::vector<std::string>& paths) {
    QMimeData data;
    QList<QUrl> urls;
    for (const std::string& path : paths) {
        urls << QUrl::fromLocalFile(QString::fromStdString(path));
    }
    data.setUrls(urls);
    const QPoint at = id != 0 ? Widget(id)->geometry().center()
                              : View().Page()->rect().bottomRight() - QPoint(2, 2);
    const QPointF inWindow = View().Page()->mapTo(&View(), at);
    QDragEnterEvent enter(inWindow.toPoint(), Qt::CopyAction, &data, Qt::LeftButton,
                          Qt::NoModifier);
    QApplication::sendEvent(&View(), &enter);
    QDropEvent drop(inWindow, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(&View(), &drop);
}

}  // namespace kb::test
