#include "ui/main_view.h"

#include <QApplication>
#include <QCheckBox>
#include <QCloseEvent>
#include <QComboBox>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFile>
#include <QFocusFrame>
#include <QGuiApplication>
#include <QHeaderView>
#include <QHelpEvent>
#include <QKeyEvent>
#include <QLabel>
#include <QLayout>
#include <QLineEdit>
#include <QListWidget>
#include <QMenuBar>
#include <QMimeData>
#include <QMouseEvent>
#include <QMoveEvent>
#include <QProgressBar>
#include <QPushButton>
#include <QRadioButton>
#include <QScreen>
#include <QSettings>
#include <QSignalBlocker>
#include <QStyledItemDelegate>
#include <QToolTip>
#include <QTreeWidget>
#include <QUrl>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "app/control_model.h"
#include "app/window_layout.h"
#include "platform/event_loop.h"
#include "resources/resource.h"
#include "ui/about_box.h"
#include "ui/pictures.h"

namespace kb::ui {

using namespace kb::app;
using namespace kb::platform;
using namespace kb::resources;

namespace {

// The longest text an edit field takes, as a record holds it.
constexpr int EditMaxLength = 31;
// Each row of the file list shows its icon at this size.
constexpr int RowIconSize = 16;

// A caption fitted to its text keeps this many units from its neighbours,
// and is set at most this much smaller, in steps of so many points.
constexpr int CaptionGap = 1;
constexpr qreal SmallestCaption = 0.85;
constexpr qreal CaptionStep = 0.25;

// The role under which a file list row keeps the image it shows.
constexpr int ImageRole = Qt::UserRole;

// Before the window is first shown its frame is not known; a window that
// opens on a small screen leaves this many units for a title bar.
constexpr int FrameAllowance = 16;
// Where the window's place is kept between runs, in the installation's
// folder, and under which keys.
constexpr const char* PlaceKey = "Window/Place";
constexpr const char* MaximisedKey = "Window/Maximised";

Box BoxOf(const QRect& rect) {
    return Box{rect.x(), rect.y(), rect.width(), rect.height()};
}

QRect RectOf(const Box& box) {
    return QRect(box.X, box.Y, box.Width, box.Height);
}

std::optional<WindowPlace> LoadPlace(const QString& file) {
    const QSettings settings(file, QSettings::IniFormat);
    if (file.isEmpty() || !settings.contains(QString::fromLatin1(PlaceKey))) {
        return std::nullopt;
    }
    return WindowPlace{BoxOf(settings.value(QString::fromLatin1(PlaceKey)).toRect()),
                       settings.value(QString::fromLatin1(MaximisedKey)).toBool()};
}

// Each row of a list box is as wide as the list, so that a line longer than
// that ends in "..." where the list ends, rather than behind a scroll bar;
// the row's tooltip shows it whole.
class FullWidthRows : public QStyledItemDelegate {
public:
    explicit FullWidthRows(QAbstractItemView* view) : QStyledItemDelegate(view), view_(view) {}

    [[nodiscard]] QSize sizeHint(const QStyleOptionViewItem& option,
                                 const QModelIndex& index) const override {
        return QSize(view_->viewport()->width(),
                     QStyledItemDelegate::sizeHint(option, index).height());
    }

private:
    QAbstractItemView* view_;
};

// The text of the row under the point when the row shows less than all of
// it; empty when it shows all.
QString CutTextAt(const QAbstractItemView* view, const QPoint& point) {
    const QModelIndex index = view->indexAt(point);
    if (!index.isValid()) {
        return {};
    }
    const QString text = index.data(Qt::DisplayRole).toString();
    // The room the row leaves for its text: its width less the icon's and
    // the margins on either side, and a few pixels to spare: a tooltip on a
    // line that just fits does no harm, none on a cut line hides its end.
    const int iconRoom = index.data(Qt::DecorationRole).isNull() ? 0 : view->iconSize().width();
    const int margins = 2 * (view->style()->pixelMetric(QStyle::PM_FocusFrameHMargin) + 1) + 4;
    const int room = view->visualRect(index).width() - iconRoom - margins;
    return view->fontMetrics().horizontalAdvance(text) > room ? text : QString();
}

QString Text(const std::string& text) {
    return QString::fromStdString(text);
}

bool RightAligned(int id) {
    return id == IDC_LABEL_ISDN || id == IDC_LABEL_TELEPHONE || id == IDC_LABEL_PROTOCOL ||
           id == IDC_LABEL_CARRIER || id == IDC_EST_TIME;
}

WindowEvent EventOf(EventKind kind, int id) {
    WindowEvent event;
    event.Kind = kind;
    event.Id = id;
    return event;
}

// Brings the rows of a list to the model's rows, touching only what differs:
// the rows that both share at the front and at the back stay, so a line added
// to the log or the file list's top row taken away moves nothing else.
template <typename Same, typename Remove, typename Insert>
void FollowRows(int have, const std::vector<ListRow>& rows, Same same, Remove remove,
                Insert insert) {
    const int want = static_cast<int>(rows.size());
    int front = 0;
    while (front < have && front < want && same(front, rows[static_cast<size_t>(front)])) {
        ++front;
    }
    int back = 0;
    while (back < have - front && back < want - front &&
           same(have - 1 - back, rows[static_cast<size_t>(want - 1 - back)])) {
        ++back;
    }
    for (int row = have - back - 1; row >= front; --row) {
        remove(row);
    }
    for (int row = front; row < want - back; ++row) {
        insert(row, rows[static_cast<size_t>(row)]);
    }
}

void FollowListBox(QListWidget* list, const ControlState& state, int rowToShow) {
    FollowRows(
        list->count(), state.Rows,
        [&](int row, const ListRow& wanted) {
            return list->item(row)->text() == Text(wanted.Text);
        },
        [&](int row) { delete list->takeItem(row); },
        [&](int row, const ListRow& wanted) { list->insertItem(row, Text(wanted.Text)); });
    if (state.Selection >= 0 && state.Selection < list->count()) {
        list->setCurrentRow(state.Selection);
    } else {
        list->clearSelection();
        list->setCurrentRow(-1);
    }
    if (rowToShow >= 0 && rowToShow < list->count()) {
        list->scrollToItem(list->item(rowToShow));
    }
}

void FollowDropDown(QComboBox* box, const ControlState& state) {
    bool same = box->count() == static_cast<int>(state.Rows.size());
    for (int row = 0; same && row < box->count(); ++row) {
        same = box->itemText(row) == Text(state.Rows[static_cast<size_t>(row)].Text);
    }
    if (!same) {
        box->clear();
        for (const ListRow& row : state.Rows) {
            box->addItem(Text(row.Text));
        }
    }
    box->setCurrentIndex(state.Selection < box->count() ? state.Selection : -1);
}

QTreeWidgetItem* FileRow(const ListRow& row) {
    auto* item = new QTreeWidgetItem({Text(row.Text), Text(row.Detail)});
    item->setData(0, ImageRole, row.Image);
    item->setIcon(0, PictureIcon(RowIconId(row.Image), QSize(RowIconSize, RowIconSize)));
    item->setTextAlignment(1, Qt::AlignRight | Qt::AlignVCenter);
    return item;
}

void FollowListView(QTreeWidget* tree, const ControlState& state, int rowToShow) {
    QStringList headers;
    for (const std::string& column : state.Columns) {
        headers << Text(column);
    }
    QTreeWidgetItem* header = tree->headerItem();
    bool sameHeaders = tree->columnCount() == headers.size();
    for (int column = 0; sameHeaders && column < headers.size(); ++column) {
        sameHeaders = header->text(column) == headers[column];
    }
    if (!sameHeaders && !headers.isEmpty()) {
        tree->setHeaderLabels(headers);
        // "Size" is as wide as its widest figure; "Name" takes the rest.
        if (headers.size() > 1) {
            header->setTextAlignment(1, Qt::AlignRight | Qt::AlignVCenter);
            tree->header()->setSectionResizeMode(0, QHeaderView::Stretch);
            tree->header()->setSectionResizeMode(1, QHeaderView::ResizeToContents);
        }
    }
    FollowRows(
        tree->topLevelItemCount(), state.Rows,
        [&](int row, const ListRow& wanted) {
            const QTreeWidgetItem* item = tree->topLevelItem(row);
            return item->text(0) == Text(wanted.Text) && item->text(1) == Text(wanted.Detail) &&
                   item->data(0, ImageRole).toInt() == wanted.Image;
        },
        [&](int row) { delete tree->takeTopLevelItem(row); },
        [&](int row, const ListRow& wanted) { tree->insertTopLevelItem(row, FileRow(wanted)); });
    if (state.Selection >= 0 && state.Selection < tree->topLevelItemCount()) {
        tree->setCurrentItem(tree->topLevelItem(state.Selection));
    } else {
        tree->clearSelection();
        tree->setCurrentItem(nullptr);
    }
    if (rowToShow >= 0 && rowToShow < tree->topLevelItemCount()) {
        tree->scrollToItem(tree->topLevelItem(rowToShow));
    }
}

// A picture is drawn anew only when the model names another one.
constexpr const char* PictureProperty = "kbPicture";

bool PictureChanged(QWidget* widget, int picture) {
    if (widget->property(PictureProperty).toInt() == picture) {
        return false;
    }
    widget->setProperty(PictureProperty, picture);
    return true;
}

}  // namespace

MainView::MainView(std::shared_ptr<ControlChanges> changes, WindowHandle window, const QFont& font,
                   QString placeFile)
    : changes_(std::move(changes)),
      window_(std::move(window)),
      units_(font),
      placeFile_(std::move(placeFile)) {
    setFont(font);
    // A window to resize, maximise, minimise and close.
    setWindowFlags(Qt::Window | Qt::CustomizeWindowHint | Qt::WindowTitleHint |
                   Qt::WindowSystemMenuHint | Qt::WindowMinimizeButtonHint |
                   Qt::WindowMaximizeButtonHint | Qt::WindowCloseButtonHint);
    QIcon icon;
    for (const int size : {16, 24, 32, 48, 64, 128}) {
        icon.addPixmap(RenderPicture(IDR_MAINFRAME, QSize(size, size), 1.0));
    }
    setWindowIcon(icon);
    page_ = new QWidget(this);
    page_->setMinimumSize(units_.X(SmallestLayoutWidth), units_.Y(SmallestLayoutHeight));
    page_->installEventFilter(this);
    setCentralWidget(page_);
    setAcceptDrops(true);
    focusMark_ = new QFocusFrame(page_);
    // Drawn in the colour of a picked row, so that it reads as the list's
    // mark and not as an edge of the window.
    QPalette marked = focusMark_->palette();
    marked.setColor(QPalette::WindowText, marked.color(QPalette::Highlight));
    focusMark_->setPalette(marked);
    connect(qApp, &QApplication::focusChanged, this,
            [this](QWidget*, QWidget* now) { MarkFocusedList(now); });

    // The About box has a font two points smaller than the window's.
    QFont aboutFont = font;
    aboutFont.setPointSizeF(font.pointSizeF() * 0.8);
    about_ = new AboutBox(this, aboutFont, [this] { Send(EventOf(EventKind::AboutOk, 0)); });

    changes_->SetTarget(this);
}

MainView::~MainView() {
    changes_->SetTarget(nullptr);
}

QWidget* MainView::WidgetOf(int id) const {
    const auto found = widgets_.find(id);
    return found == widgets_.end() ? nullptr : found->second;
}

void MainView::Send(const WindowEvent& event) {
    std::shared_ptr<ControlChanges> changes = changes_;
    const bool edit = event.Kind == EventKind::TextEdited;
    if (edit) {
        ++editsUnhandled_[event.Id];
    }
    MainLoop().Post([event, changes, edit, handle = window_] {
        MainWindow* window = handle->load();
        if (window == nullptr) {
            return;
        }
        const EventOutcome outcome = window->HandleEvent(event);
        if (edit) {
            changes->EditHandled(event.Id);
        }
        // A menu entry may have checked itself in the menu as it was chosen;
        // the model's checks stand.
        if (event.Kind == EventKind::MenuCommand) {
            changes->ResyncMenus();
        } else if (!outcome.Done) {
            changes->Resync(event.Kind == EventKind::AboutOk ? IDD_ABOUTBOX : event.Id);
        }
    });
}

void MainView::MakeWidget(const ControlState& state, const ControlPlace& place) {
    const int id = state.Id;
    QRect where = units_.Rect(place.X, place.Y, place.Width, place.Height);
    QWidget* widget = nullptr;
    switch (state.Kind) {
        case ControlKind::Label: {
            auto* label = new QLabel(page_);
            label->setTextFormat(Qt::PlainText);
            label->setAlignment((RightAligned(id) ? Qt::AlignRight : Qt::AlignLeft) |
                                Qt::AlignVCenter);
            widget = label;
            break;
        }
        case ControlKind::Picture: {
            auto* label = new QLabel(page_);
            label->setAlignment(Qt::AlignCenter);
            widget = label;
            break;
        }
        case ControlKind::Edit: {
            auto* edit = new QLineEdit(page_);
            edit->setMaxLength(EditMaxLength);
            connect(edit, &QLineEdit::textEdited, this, [this, id](const QString& text) {
                WindowEvent event = EventOf(EventKind::TextEdited, id);
                event.Text = text.toStdString();
                Send(event);
            });
            widget = edit;
            break;
        }
        case ControlKind::Button:
        case ControlKind::PictureButton: {
            auto* button = new QPushButton(page_);
            button->setAutoDefault(false);
            connect(button, &QPushButton::clicked, this,
                    [this, id] { Send(EventOf(EventKind::ButtonPressed, id)); });
            widget = button;
            break;
        }
        case ControlKind::CheckBox:
        case ControlKind::RadioButton: {
            QAbstractButton* box = nullptr;
            if (state.Kind == ControlKind::CheckBox) {
                box = new QCheckBox(page_);
            } else {
                // The pair does not exclude each other by itself: the window
                // decides which one is chosen.
                auto* radio = new QRadioButton(page_);
                radio->setAutoExclusive(false);
                box = radio;
            }
            connect(box, &QAbstractButton::clicked, this, [this, id](bool checked) {
                WindowEvent event = EventOf(EventKind::BoxClicked, id);
                event.Checked = checked;
                Send(event);
            });
            widget = box;
            break;
        }
        case ControlKind::ListBox: {
            auto* list = new QListWidget(page_);
            list->setSelectionMode(QAbstractItemView::SingleSelection);
            list->setUniformItemSizes(true);
            list->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
            list->setItemDelegate(new FullWidthRows(list));
            list->viewport()->installEventFilter(this);
            viewports_[list->viewport()] = id;
            // Clicks come through the filter; this is the keyboard's choice.
            connect(list, &QListWidget::itemSelectionChanged, this, [this, id, list] {
                const QModelIndexList rows = list->selectionModel()->selectedRows();
                WindowEvent event = EventOf(EventKind::SelectionChanged, id);
                event.Row = rows.isEmpty() ? -1 : rows.first().row();
                Send(event);
            });
            widget = list;
            break;
        }
        case ControlKind::DropDown: {
            auto* box = new QComboBox(page_);
            connect(box, &QComboBox::currentIndexChanged, this, [this, id](int row) {
                WindowEvent event = EventOf(EventKind::SelectionChanged, id);
                event.Row = row;
                Send(event);
            });
            where.setHeight(units_.Y(app::ClosedDropDownHeight));
            widget = box;
            break;
        }
        case ControlKind::ListView: {
            auto* tree = new QTreeWidget(page_);
            tree->setRootIsDecorated(false);
            tree->setIndentation(0);
            tree->setUniformRowHeights(true);
            tree->setSelectionMode(QAbstractItemView::SingleSelection);
            tree->setIconSize(QSize(RowIconSize, RowIconSize));
            tree->header()->setSectionsClickable(false);
            tree->header()->setSectionsMovable(false);
            tree->header()->setStretchLastSection(false);
            tree->viewport()->installEventFilter(this);
            viewports_[tree->viewport()] = id;
            // Clicks come through the filter; this is the keyboard's choice.
            connect(tree, &QTreeWidget::currentItemChanged, this,
                    [this, id, tree](QTreeWidgetItem* current) {
                        WindowEvent event = EventOf(EventKind::SelectionChanged, id);
                        event.Row = current == nullptr ? -1 : tree->indexOfTopLevelItem(current);
                        Send(event);
                    });
            widget = tree;
            break;
        }
        case ControlKind::ProgressBar: {
            auto* bar = new QProgressBar(page_);
            bar->setRange(0, 100);
            bar->setTextVisible(false);
            widget = bar;
            break;
        }
        case ControlKind::Window:
            return;
    }
    laidOut_[id] = where;
    where = PlaceInPage(id);
    widget->setGeometry(where);
    widget->setObjectName(Text(place.Name));
    widgets_[id] = widget;
    GiveWordsAndKeys(id, widget);
    const bool caption = state.Kind == ControlKind::Label || state.Kind == ControlKind::CheckBox ||
                         state.Kind == ControlKind::RadioButton;
    if (caption) {
        captionPlaces_[id] = where;
    }
}

void MainView::GiveWordsAndKeys(int id, QWidget* widget) {
    const QString tip = Text(ControlTip(id));
    if (!tip.isEmpty()) {
        widget->setToolTip(tip);
        widget->setAccessibleName(tip);
    }
    if (id == IDC_EMBLEM) {
        // The program's mark, drawn whole and without a button's edge until
        // the pointer is on it.
        auto* button = static_cast<QPushButton*>(widget);
        button->setFlat(true);
        button->setCursor(Qt::PointingHandCursor);
    }
    // Enter presses a button that has the focus, as Space does; the arrows
    // pick a row of a list that has none picked.
    if (qobject_cast<QPushButton*>(widget) != nullptr ||
        qobject_cast<QAbstractItemView*>(widget) != nullptr) {
        widget->installEventFilter(this);
    }
}

void MainView::MarkFocusedList(QWidget* focused) {
    // A list shows that it has the focus by a frame around it, also while
    // it has no row to mark; the style draws none of its own.
    auto* list = qobject_cast<QAbstractItemView*>(focused);
    const bool ours = std::any_of(widgets_.begin(), widgets_.end(),
                                  [&](const auto& entry) { return entry.second == list; });
    focusMark_->setWidget(ours ? list : nullptr);
}

bool MainView::KeyForControl(QObject* watched, QEvent* event) {
    if (event->type() != QEvent::KeyPress) {
        return false;
    }
    const auto* key = static_cast<QKeyEvent*>(event);
    if (auto* button = qobject_cast<QPushButton*>(watched)) {
        const bool enter = key->key() == Qt::Key_Return || key->key() == Qt::Key_Enter;
        if (enter && key->modifiers() == Qt::NoModifier && button->isEnabled()) {
            if (!key->isAutoRepeat()) {
                button->animateClick();
            }
            return true;
        }
        return false;
    }
    auto* view = qobject_cast<QAbstractItemView*>(watched);
    const bool arrow = key->key() == Qt::Key_Up || key->key() == Qt::Key_Down;
    if (view == nullptr || !arrow || view->model()->rowCount() == 0 ||
        view->selectionModel()->hasSelection()) {
        return false;
    }
    // With no row picked, the list's mark may already stand on the row that
    // an arrow would move to, or on the only row, and Qt would then pick
    // nothing: the arrow picks the marked row, or the first.
    const int id = std::find_if(widgets_.begin(), widgets_.end(), [&](const auto& entry) {
                       return entry.second == view;
                   })->first;
    WindowEvent picked = EventOf(EventKind::SelectionChanged, id);
    picked.Row = view->currentIndex().isValid() ? view->currentIndex().row() : 0;
    Send(picked);
    return true;
}

QRect MainView::PlaceInPage(int id) const {
    const int grownX = page_->width() - units_.X(LayoutWidth);
    const int grownY = page_->height() - units_.Y(LayoutHeight);
    return RectOf(GrownPlace(id, BoxOf(laidOut_.at(id)), grownX, grownY));
}

void MainView::PlaceControls() {
    for (const auto& [id, widget] : widgets_) {
        const QRect place = PlaceInPage(id);
        widget->setGeometry(place);
        if (captionPlaces_.count(id) != 0) {
            captionPlaces_[id] = place;
        }
    }
    FitCaptions();
}

void MainView::OpenAtItsPlace() {
    // The smallest window and the laid-out one, each with its menu bar.
    layout()->activate();
    const QSize smallest = minimumSizeHint();
    const QSize laidOut =
        smallest + QSize(units_.X(LayoutWidth), units_.Y(LayoutHeight)) - page_->minimumSize();
    std::vector<Box> screens;
    for (const QScreen* screen : QGuiApplication::screens()) {
        screens.push_back(BoxOf(screen->geometry()));
    }
    const std::optional<WindowPlace> place =
        PlaceToReopen(LoadPlace(placeFile_), screens, smallest.width(), smallest.height());
    if (place) {
        resize(place->Normal.Width, place->Normal.Height);
        move(place->Normal.X, place->Normal.Y);
        if (place->Maximised) {
            showMaximized();
        } else {
            show();
        }
        return;
    }
    // Otherwise at the laid-out size, or what the screen has room for, in
    // the middle of the screen: placed by the program, so that the splash
    // opens over it and not where the window stood before the desktop
    // placed it.
    const QRect screen = QGuiApplication::primaryScreen()->availableGeometry();
    const int frame = units_.Y(FrameAllowance);
    const Box size = OpeningSize(BoxOf(QRect(QPoint(), laidOut)), BoxOf(QRect(QPoint(), smallest)),
                                 BoxOf(screen.adjusted(0, frame, 0, 0)));
    resize(size.Width, size.Height);
    move(screen.center() - QPoint(size.Width / 2, (size.Height + frame) / 2));
    show();
}

void MainView::SavePlace() const {
    if (placeFile_.isEmpty() || !shown_) {
        return;
    }
    // The place of the frame and the size without it, as the window stands
    // when it is neither maximised nor minimised.
    const QRect normal = isMaximized() || isMinimized() ? normalGeometry() : geometry();
    QSettings settings(placeFile_, QSettings::IniFormat);
    settings.setValue(QString::fromLatin1(PlaceKey), normal.translated(-normalFrame_));
    settings.setValue(QString::fromLatin1(MaximisedKey), isMaximized());
}

int MainView::RoomLeftOf(int id, const QRect& place) const {
    int left = units_.X(CaptionGap);
    for (const auto& [other, widget] : widgets_) {
        const QRect there = widget->geometry();
        const bool beside = there.top() <= place.bottom() && there.bottom() >= place.top();
        if (other != id && !widget->isHidden() && beside && there.right() < place.left()) {
            left = std::max(left, there.right() + 1 + units_.X(CaptionGap));
        }
    }
    return left;
}

int MainView::RoomRightOf(int id, const QRect& place) const {
    int right = page_->width() - 1 - units_.X(CaptionGap);
    for (const auto& [other, widget] : widgets_) {
        const QRect there = widget->geometry();
        const bool beside = there.top() <= place.bottom() && there.bottom() >= place.top();
        if (other != id && !widget->isHidden() && beside && there.left() > place.right()) {
            right = std::min(right, there.left() - 1 - units_.X(CaptionGap));
        }
    }
    return right;
}

void MainView::FitCaptions() {
    // The places were measured for one font; another font's captions may
    // need more room. A caption that does not fit grows away from the side
    // it is aligned to, as far as the controls beside it leave room; one
    // that still does not fit is set a little smaller. No control moves.
    for (const auto& [id, place] : captionPlaces_) {
        QWidget* widget = WidgetOf(id);
        if (widget->font() != font()) {
            widget->setFont(font());
        }
        const int needed = widget->sizeHint().width();
        QRect fitted = place;
        if (needed > place.width()) {
            if (RightAligned(id)) {
                fitted.setLeft(std::max(place.right() + 1 - needed, RoomLeftOf(id, place)));
            } else {
                fitted.setRight(std::min(place.left() + needed - 1, RoomRightOf(id, place)));
            }
        }
        widget->setGeometry(fitted);
        QFont smaller = font();
        while (widget->sizeHint().width() > fitted.width() &&
               smaller.pointSizeF() > font().pointSizeF() * SmallestCaption) {
            smaller.setPointSizeF(smaller.pointSizeF() - CaptionStep);
            widget->setFont(smaller);
        }
    }
}

void MainView::Follow(int id, const std::map<int, int>& rowsToShow) {
    const ControlState state = Controls().State(id);
    if (state.Id != id) {
        return;
    }
    if (state.Kind == ControlKind::Window) {
        setWindowTitle(Text(state.Text));
        return;
    }
    if (id == IDD_ABOUTBOX) {
        about_->Follow(state);
        return;
    }
    QWidget* widget = WidgetOf(id);
    if (widget == nullptr) {
        return;
    }
    const auto shown = rowsToShow.find(id);
    const int rowToShow = shown == rowsToShow.end() ? -1 : shown->second;
    // What the program sets is never taken for what the user did.
    const QSignalBlocker blocker(widget);
    widget->setEnabled(state.Enabled);
    widget->setVisible(state.Shown);
    switch (state.Kind) {
        case ControlKind::Label:
            static_cast<QLabel*>(widget)->setText(Text(state.Text));
            break;
        case ControlKind::Picture:
            if (PictureChanged(widget, state.Picture)) {
                static_cast<QLabel*>(widget)->setPixmap(
                    RenderPicture(state.Picture, widget->size(), devicePixelRatioF()));
            }
            break;
        case ControlKind::Edit: {
            auto* edit = static_cast<QLineEdit*>(widget);
            // Set only when it differs, so the cursor stays where the user
            // types, and not while the user's typing is on its way to the
            // window.
            if (editsUnhandled_[id] == 0 && edit->text() != Text(state.Text)) {
                edit->setText(Text(state.Text));
            }
            break;
        }
        case ControlKind::Button:
            static_cast<QPushButton*>(widget)->setText(Text(state.Text));
            break;
        case ControlKind::PictureButton:
            if (PictureChanged(widget, state.Picture)) {
                auto* button = static_cast<QPushButton*>(widget);
                // A flat button has no edge to leave room for.
                const QSize room = button->isFlat()
                                       ? button->size()
                                       : button->size() - QSize(units_.X(4), units_.Y(4));
                button->setIconSize(room);
                button->setIcon(PictureIcon(state.Picture, room));
            }
            break;
        case ControlKind::CheckBox:
        case ControlKind::RadioButton: {
            auto* box = static_cast<QAbstractButton*>(widget);
            box->setText(Text(state.Text));
            box->setChecked(state.Checked);
            break;
        }
        case ControlKind::ListBox:
            FollowListBox(static_cast<QListWidget*>(widget), state, rowToShow);
            break;
        case ControlKind::DropDown:
            FollowDropDown(static_cast<QComboBox*>(widget), state);
            break;
        case ControlKind::ListView:
            FollowListView(static_cast<QTreeWidget*>(widget), state, rowToShow);
            break;
        case ControlKind::ProgressBar:
            static_cast<QProgressBar*>(widget)->setValue(std::clamp(state.Position, 0, 100));
            break;
        case ControlKind::Window:
            break;
    }
}

void MainView::FlushChanges() {
    const ControlChanges::Pending pending = changes_->Take();
    for (const auto& [id, handled] : pending.EditsHandled) {
        editsUnhandled_[id] = std::max(0, editsUnhandled_[id] - handled);
    }
    // New controls are made in the window's own order, so that the focus
    // moves through them in that order.
    for (const ControlPlace& place : MainWindowLayout()) {
        if (pending.Ids.count(place.Id) != 0 && WidgetOf(place.Id) == nullptr) {
            const ControlState state = Controls().State(place.Id);
            if (state.Id == place.Id) {
                MakeWidget(state, place);
            }
        }
    }
    if (pending.Menus) {
        RebuildMenus();
    }
    // The window comes up with its controls, before the About box that
    // opens over it.
    if (!shown_ && Controls().Exists(IDD_MAIN_WINDOW)) {
        for (const int id : pending.Ids) {
            if (id != IDD_ABOUTBOX) {
                Follow(id, pending.RowsToShow);
            }
        }
        FitCaptions();
        shown_ = true;
        OpenAtItsPlace();
        if (pending.Ids.count(IDD_ABOUTBOX) != 0) {
            Follow(IDD_ABOUTBOX, pending.RowsToShow);
        }
        return;
    }
    for (const int id : pending.Ids) {
        Follow(id, pending.RowsToShow);
    }
    if (!pending.Ids.empty()) {
        FitCaptions();
    }
    TakeFocus(pending.Focus);
}

void MainView::TakeFocus(int id) {
    // After the widgets follow the model: a widget just enabled or shown
    // can take the focus, and one still disabled cannot.
    if (QWidget* widget = WidgetOf(id)) {
        widget->setFocus(Qt::OtherFocusReason);
    }
}

void MainView::RebuildMenus() {
    QMenuBar* bar = menuBar();
    bar->clear();
    for (QMenu* menu : menus_) {
        menu->deleteLater();
    }
    menus_.clear();
    // The entries the window adds to the system menu are in its Help menu
    // too: a Linux desktop has no window menu to take them.
    for (const Menu& menu : Controls().Menus()) {
        auto* shown = new QMenu(Text(menu.Title), bar);
        const bool checks = std::any_of(menu.Items.begin(), menu.Items.end(),
                                        [](const MenuItem& item) { return item.Checked; });
        for (const MenuItem& item : menu.Items) {
            if (item.Text.empty()) {
                // A separator parts entries; before the first it parts
                // nothing.
                if (!shown->isEmpty()) {
                    shown->addSeparator();
                }
                continue;
            }
            QAction* action = shown->addAction(Text(item.Text));
            action->setCheckable(checks);
            action->setChecked(item.Checked);
            const int command = item.Command;
            connect(action, &QAction::triggered, this,
                    [this, command] { Send(EventOf(EventKind::MenuCommand, command)); });
        }
        if (shown->isEmpty()) {
            delete shown;
            continue;
        }
        bar->addMenu(shown);
        menus_.push_back(shown);
    }
}

int MainView::DropTargetAt(const QPoint& point) const {
    for (const int id : {IDC_FILE_LIST, IDC_SEND, IDC_DIRECTORY_LIST}) {
        const QWidget* widget = WidgetOf(id);
        if (widget != nullptr && widget->geometry().contains(point)) {
            return id;
        }
    }
    return 0;
}

void MainView::closeEvent(QCloseEvent* event) {
    // The window decides how the program ends; it closes the view when it
    // has.
    event->ignore();
    Send(EventOf(EventKind::Close, 0));
}

void MainView::dragEnterEvent(QDragEnterEvent* event) {
    if (event->mimeData()->hasUrls()) {
        event->acceptProposedAction();
    }
}

void MainView::dragMoveEvent(QDragMoveEvent* event) {
    if (event->mimeData()->hasUrls()) {
        event->acceptProposedAction();
    }
}

void MainView::dropEvent(QDropEvent* event) {
    WindowEvent dropped = EventOf(EventKind::FilesDropped, 0);
    for (const QUrl& url : event->mimeData()->urls()) {
        if (url.isLocalFile()) {
            // The path's bytes as the file system has them.
            dropped.Paths.push_back(QFile::encodeName(url.toLocalFile()).toStdString());
        }
    }
    if (dropped.Paths.empty()) {
        return;
    }
    event->acceptProposedAction();
    dropped.Id = DropTargetAt(page_->mapFrom(this, event->position().toPoint()));
    Send(dropped);
    if (dropped.Id == IDC_DIRECTORY_LIST) {
        // A drop on the directory list always ends with the window in front.
        raise();
        activateWindow();
        WidgetOf(IDC_DIRECTORY_LIST)->setFocus();
    }
}

void MainView::moveEvent(QMoveEvent* event) {
    QMainWindow::moveEvent(event);
    // A maximised window may have a frame of another width.
    if (windowState() == Qt::WindowNoState) {
        normalFrame_ = geometry().topLeft() - pos();
    }
    // The desktop may place the window after the splash has opened.
    if (about_->isVisible()) {
        about_->CentreOver(this);
    }
}

bool MainView::eventFilter(QObject* watched, QEvent* event) {
    if (watched == page_ && event->type() == QEvent::Resize) {
        PlaceControls();
        return false;
    }
    if (KeyForControl(watched, event)) {
        return true;
    }
    const auto found = viewports_.find(watched);
    if (found == viewports_.end()) {
        return QMainWindow::eventFilter(watched, event);
    }
    const int id = found->second;
    auto* view = static_cast<QAbstractItemView*>(WidgetOf(id));
    if (event->type() == QEvent::ToolTip) {
        // A row that shows less than its whole text shows it whole here.
        const auto* help = static_cast<QHelpEvent*>(event);
        const QString cut = CutTextAt(view, help->pos());
        if (cut.isEmpty()) {
            QToolTip::hideText();
        } else {
            QToolTip::showText(help->globalPos(), cut, view->viewport());
        }
        return true;
    }
    if (event->type() == QEvent::MouseButtonPress) {
        const auto* click = static_cast<QMouseEvent*>(event);
        if (click->button() != Qt::LeftButton) {
            return true;
        }
        // Every click on a row reports it, also the row already selected;
        // a click on the file list below its rows reports none. The window
        // keeps the selection and the list shows it.
        const QModelIndex hit = view->indexAt(click->position().toPoint());
        const bool files = id == IDC_FILE_LIST;
        if (hit.isValid() || files) {
            WindowEvent clicked = EventOf(EventKind::SelectionChanged, id);
            clicked.Row = hit.isValid() ? hit.row() : -1;
            Send(clicked);
        }
        view->setFocus(Qt::MouseFocusReason);
        return true;
    }
    // A double click does nothing more than its first click, and dragging
    // over the rows selects nothing.
    if (event->type() == QEvent::MouseButtonDblClick || event->type() == QEvent::MouseMove ||
        event->type() == QEvent::MouseButtonRelease) {
        return true;
    }
    return QMainWindow::eventFilter(watched, event);
}

}  // namespace kb::ui
