#include "Models.h"

#include <QMimeDatabase>

#include "carving/Sig.h"
#include "tree/HDIR.h"

namespace ambrel::qt {

QString qs(const std::string& s) { return QString::fromStdString(s); }

// ---- tables

TableModel::TableModel(AppController*& app, Table table, QStringList columns, QObject* parent)
    : QAbstractTableModel(parent), app_(app), table_(table), columns_(std::move(columns)) {}

void TableModel::reload() {
  beginResetModel();
  endResetModel();
}

int TableModel::rowCount(const QModelIndex& parent) const {
  return parent.isValid() || !app_ ? 0 : app_->tableRowCount(table_);
}

int TableModel::columnCount(const QModelIndex& parent) const { return parent.isValid() ? 0 : columns_.size(); }

QVariant TableModel::data(const QModelIndex& index, int role) const {
  if (!app_ || !index.isValid() || index.column() >= columns_.size()) return {};
  if (role == Qt::DisplayRole || role == Qt::ToolTipRole)
    return qs(app_->tableCellText(table_, index.row(), columns_[index.column()].toStdString()));
  if (role == Qt::DecorationRole && index.column() == 0 && table_ == Table::Drives)
    return QIcon::fromTheme(QStringLiteral("drive-harddisk"));
  if (role == Qt::DecorationRole && index.column() == 0 && table_ == Table::Volumes)
    return QIcon::fromTheme(QStringLiteral("drive-removable-media"));
  return {};
}

QVariant TableModel::headerData(int section, Qt::Orientation orientation, int role) const {
  if (orientation == Qt::Horizontal && role == Qt::DisplayRole && section >= 0 && section < columns_.size())
    return columns_[section];
  return QAbstractTableModel::headerData(section, orientation, role);
}

// ---- the recovered tree

TreeModel::TreeModel(AppController*& app, QObject* parent) : QAbstractItemModel(parent), app_(app) {}

void TreeModel::reload() {
  beginResetModel();
  folders_.clear();
  lastKey_ = nullptr;
  last_ = nullptr;
  endResetModel();
}

TreeModel::Folder* TreeModel::folder(const HDIR* item) const {
  // The view asks for the rows of one folder after another: the last one
  // found is nearly always the one wanted.
  if (item == lastKey_ && last_) return last_;
  auto it = folders_.find(item);
  if (it == folders_.end()) return nullptr;
  lastKey_ = item;
  last_ = &it->second;
  return last_;
}

QModelIndex TreeModel::make(int row, int column, const HDIR* item, bool leaf) const {
  return createIndex(row, column, reinterpret_cast<quintptr>(item) | (leaf ? 1 : 0));
}

int TreeModel::rowOf(const HDIR* item) const {
  const HDIR* holder = item->holder();
  if (!holder) return 0;  // the root, the one top-level row
  Folder* f = folder(item);
  if (f && f->row >= 0) return f->row;
  // Only for an entry no view has asked for yet (a find's match, a file).
  const int count = app_->outlineChildCount(holder);
  for (int i = 0; i < count; ++i)
    if (app_->outlineChild(holder, i) == item) {
      if (app_->outlineIsItemExpandable(item)) folders_[item].row = i;
      return i;
    }
  return -1;
}

QModelIndex TreeModel::indexFor(const HDIR* item, int column) const {
  if (!item) return {};
  const int row = rowOf(item);
  return row < 0 ? QModelIndex() : make(row, column, item, !app_->outlineIsItemExpandable(item));
}

QModelIndex TreeModel::index(int row, int column, const QModelIndex& parent) const {
  if (!app_ || row < 0 || column < 0 || column >= ColumnCount) return {};
  if (!parent.isValid()) {
    HDIR* root = row < app_->outlineChildCount(nullptr) ? app_->outlineChild(nullptr, row) : nullptr;
    return root ? make(row, column, root, !app_->outlineIsItemExpandable(root)) : QModelIndex();
  }
  if (parent.column() != 0) return {};
  const HDIR* holder = item(parent);
  Folder* f = folder(holder);
  if (!f || row >= f->fetched()) return {};
  HDIR* child = app_->outlineChild(holder, row);
  if (!child) return {};
  const bool leaf = f->leaf[static_cast<size_t>(row)];
  // A folder's row is asked for often (its children's parent()).
  if (!leaf && column == 0) {
    Folder& sub = folders_[child];
    if (sub.row < 0) sub.row = row;
  }
  return make(row, column, child, leaf);
}

QModelIndex TreeModel::parent(const QModelIndex& child) const {
  if (!child.isValid()) return {};
  return indexFor(item(child)->holder(), 0);
}

int TreeModel::rowCount(const QModelIndex& parent) const {
  if (!app_) return 0;
  if (!parent.isValid()) return app_->outlineChildCount(nullptr);
  if (parent.column() != 0 || isLeaf(parent)) return 0;
  const Folder* f = folder(item(parent));
  return f ? f->fetched() : 0;
}

int TreeModel::columnCount(const QModelIndex&) const { return ColumnCount; }

bool TreeModel::hasChildren(const QModelIndex& parent) const {
  if (!parent.isValid()) return app_ && app_->outlineChildCount(nullptr) > 0;
  return parent.column() == 0 && !isLeaf(parent) && app_ && app_->outlineIsItemExpandable(item(parent));
}

bool TreeModel::canFetchMore(const QModelIndex& parent) const {
  if (!parent.isValid() || parent.column() != 0 || isLeaf(parent) || !app_) return false;
  const HDIR* holder = item(parent);
  const Folder* f = folder(holder);
  return (f ? f->fetched() : 0) < app_->outlineChildCount(holder);
}

void TreeModel::fetchMore(const QModelIndex& parent) {
  if (!canFetchMore(parent)) return;
  const HDIR* holder = item(parent);
  Folder& f = folders_[holder];
  const int have = f.fetched();
  const int more = std::min(kBatch, app_->outlineChildCount(holder) - have);
  beginInsertRows(parent, have, have + more - 1);
  f.leaf.reserve(static_cast<size_t>(have + more));
  for (int i = have; i < have + more; ++i) f.leaf.push_back(!app_->outlineIsItemExpandable(app_->outlineChild(holder, i)));
  endInsertRows();
}

QModelIndex TreeModel::indexOf(const HDIR* target) {
  if (!target || !app_) return {};
  std::vector<const HDIR*> chain;
  for (const HDIR* a = target; a; a = a->holder()) chain.push_back(a);
  if (chain.back() != app_->outlineChild(nullptr, 0)) return {};
  QModelIndex at = index(0, 0);
  for (size_t i = chain.size() - 1; i-- > 0;) {
    const int row = rowOf(chain[i]);
    if (row < 0) return {};
    while (rowCount(at) <= row && canFetchMore(at)) fetchMore(at);
    at = index(row, 0, at);
  }
  return at;
}

void TreeModel::changedBelow(const HDIR* top) {
  // Only what a view has fetched can be shown (the rest is read fresh when
  // it is), and only the marks change: the folders fetched below `top`,
  // found from the few fetched rather than by walking a million entries.
  for (const auto& [f, folder] : folders_) {
    const HDIR* a = f;
    while (a && a != top) a = a->holder();
    if (!a || folder.fetched() == 0) continue;
    const QModelIndex parent = indexFor(f, 0);
    if (!parent.isValid()) continue;
    emit dataChanged(index(0, Mark, parent), index(folder.fetched() - 1, Mark, parent), {Qt::CheckStateRole});
  }
}

void TreeModel::reloadItem(const HDIR* item, bool children) {
  const QModelIndex first = indexFor(item, 0);
  if (!first.isValid()) return;
  emit dataChanged(first, first.siblingAtColumn(ColumnCount - 1));
  if (children) changedBelow(item);
}

QIcon TreeModel::iconFor(const HDIR* entry) const {
  static const QMimeDatabase mimes;
  if (entry->isFolder()) {
    auto it = icons_.constFind(QString());
    if (it != icons_.constEnd()) return *it;
    return icons_[QString()] = QIcon::fromTheme(QStringLiteral("folder"));
  }
  const QString name = qs(std::string(entry->fileName()));
  const int dot = name.lastIndexOf(QLatin1Char('.'));
  const QString ext = dot > 0 ? name.mid(dot + 1).toLower() : QStringLiteral("-");
  auto it = icons_.constFind(ext);
  if (it != icons_.constEnd()) return *it;
  const QMimeType type = mimes.mimeTypeForFile(name, QMimeDatabase::MatchExtension);
  QIcon icon = QIcon::fromTheme(type.iconName(), QIcon::fromTheme(type.genericIconName(),
                                                                  QIcon::fromTheme(QStringLiteral("text-x-generic"))));
  return icons_[ext] = icon;
}

QVariant TreeModel::data(const QModelIndex& index, int role) const {
  if (!index.isValid() || !app_) return {};
  const HDIR* entry = item(index);
  static const char* const ids[] = {"Files", "Mark", "Size", "Files Count", "Modification Date", "Create Date"};
  const std::string id = ids[index.column()];
  switch (role) {
    case Qt::DisplayRole:
      return index.column() == Mark ? QVariant() : qs(app_->outlineObjectValue(entry, id));
    case Qt::CheckStateRole:
      if (index.column() != Mark) return {};
      return app_->outlineObjectValue(entry, id) == "1" ? Qt::Checked : Qt::Unchecked;
    case Qt::ToolTipRole:
      return qs(app_->outlineToolTip(entry, id));
    case Qt::DecorationRole:
      return index.column() == Files ? QVariant(iconFor(entry)) : QVariant();
    case Qt::TextAlignmentRole:
      return index.column() == Size || index.column() == FilesCount ? QVariant(Qt::AlignRight | Qt::AlignVCenter)
                                                                    : QVariant();
  }
  return {};
}

bool TreeModel::setData(const QModelIndex& index, const QVariant& value, int role) {
  if (!index.isValid() || !app_ || index.column() != Mark || role != Qt::CheckStateRole) return false;
  // The controller marks the subtree and asks for the reloads itself.
  app_->outlineViewSetObjectValue(item(index), value.toInt() == Qt::Checked);
  return true;
}

Qt::ItemFlags TreeModel::flags(const QModelIndex& index) const {
  if (!index.isValid()) return Qt::NoItemFlags;
  Qt::ItemFlags f = Qt::ItemIsEnabled | Qt::ItemIsSelectable;
  if (index.column() == Mark) f |= Qt::ItemIsUserCheckable;
  // Spares the view a look for expanded state in each file's row.
  if (isLeaf(index)) f |= Qt::ItemNeverHasChildren;
  return f;
}

QVariant TreeModel::headerData(int section, Qt::Orientation orientation, int role) const {
  static const char* const titles[] = {"Files", "Mark", "Size", "Files Count", "Modification date", "Create date"};
  if (orientation == Qt::Horizontal && role == Qt::DisplayRole && section >= 0 && section < ColumnCount)
    return QString::fromUtf8(titles[section]);
  return {};
}

// ---- the tree's view

TreeView::TreeView(QWidget* parent) : QTreeView(parent) {
  // Looked at once the view has laid out what changed.
  fetch_.setSingleShot(true);
  fetch_.setInterval(0);
  connect(&fetch_, &QTimer::timeout, this, &TreeView::fetchInSight);
  connect(this, &QTreeView::expanded, &fetch_, qOverload<>(&QTimer::start));
}

void TreeView::setModel(QAbstractItemModel* model) {
  if (QAbstractItemModel* old = this->model()) disconnect(old, nullptr, &fetch_, nullptr);
  QTreeView::setModel(model);
  if (!model) return;
  for (auto signal : {&QAbstractItemModel::rowsInserted, &QAbstractItemModel::rowsRemoved})
    connect(model, signal, &fetch_, qOverload<>(&QTimer::start));
  connect(model, &QAbstractItemModel::modelReset, &fetch_, qOverload<>(&QTimer::start));
}

void TreeView::scrollContentsBy(int dx, int dy) {
  QTreeView::scrollContentsBy(dx, dy);
  if (dy) fetch_.start();
}

void TreeView::resizeEvent(QResizeEvent* event) {
  QTreeView::resizeEvent(event);
  fetch_.start();
}

void TreeView::dataChanged(const QModelIndex& topLeft, const QModelIndex& bottomRight, const QList<int>& roles) {
  // QTreeView finds the rectangle of every row in the range, a long walk
  // for a folder of a million marks; a check box changes no row's size,
  // so repainting what is in sight is the same and costs nothing.
  if (roles == QList<int>{Qt::CheckStateRole} && bottomRight.row() - topLeft.row() > 256) {
    viewport()->update();
    return;
  }
  QTreeView::dataChanged(topLeft, bottomRight, roles);
}

void TreeView::fetchInSight() {
  QAbstractItemModel* m = model();
  if (!m) return;
  const int bottom = viewport()->rect().bottom();
  for (QModelIndex i = indexAt(QPoint(0, 0)); i.isValid(); i = indexBelow(i)) {
    if (visualRect(i).top() > bottom) break;
    const QModelIndex folder = i.parent();
    // One batch at a time: the rows inserted bring this back while more is in sight.
    if (folder.isValid() && i.row() == m->rowCount(folder) - 1 && m->canFetchMore(folder)) {
      m->fetchMore(folder);
      return;
    }
  }
}

// ---- signatures

SigModel::SigModel(AppController*& app, QObject* parent) : QAbstractItemModel(parent), app_(app) {}

void SigModel::reload() {
  beginResetModel();
  endResetModel();
}

int SigModel::rowOf(const SigNode* n) const {
  const SigNode* holder = n->parent;
  const int count = app_->sigOutlineChildCount(holder);
  for (int i = 0; i < count; ++i)
    if (app_->sigOutlineChild(holder, i) == n) return i;
  return -1;
}

void SigModel::reloadItem(const SigNode* n) {
  if (!n || !app_) return;
  const int row = rowOf(n);
  if (row < 0) return;
  const QModelIndex at = createIndex(row, 0, const_cast<SigNode*>(n));
  emit dataChanged(at, at.siblingAtColumn(1));
  if (const int kids = app_->sigOutlineChildCount(n); kids > 0)
    emit dataChanged(index(0, 0, at), index(kids - 1, 1, at));
}

QModelIndex SigModel::index(int row, int column, const QModelIndex& parent) const {
  if (!app_ || row < 0 || column < 0 || column > 1 || row >= rowCount(parent)) return {};
  // The placeholder row has no node.
  return createIndex(row, column, app_->sigOutlineChild(parent.isValid() ? node(parent) : nullptr, row));
}

QModelIndex SigModel::parent(const QModelIndex& child) const {
  const SigNode* n = child.isValid() ? node(child) : nullptr;
  if (!n || !n->parent || !app_) return {};
  const int row = rowOf(n->parent);
  return row < 0 ? QModelIndex() : createIndex(row, 0, n->parent);
}

int SigModel::rowCount(const QModelIndex& parent) const {
  if (!app_) return 0;
  if (!parent.isValid()) return app_->sigOutlineChildCount(nullptr);
  const SigNode* n = node(parent);
  return parent.column() == 0 && n ? app_->sigOutlineChildCount(n) : 0;
}

int SigModel::columnCount(const QModelIndex&) const { return 2; }

QVariant SigModel::data(const QModelIndex& index, int role) const {
  if (!index.isValid() || !app_) return {};
  const SigNode* n = node(index);
  if (role == Qt::DisplayRole) {
    if (index.column() == 0) return qs(app_->sigOutlineText(n));
    return n && n->sig ? qs(n->sig->extension) : QVariant();
  }
  if (role == Qt::CheckStateRole && index.column() == 0 && n) return n->selected == 1 ? Qt::Checked : Qt::Unchecked;
  if (role == Qt::ToolTipRole && n && n->sig)
    return QStringLiteral("%1 (.%2)").arg(qs(n->sig->software), qs(n->sig->extension));
  return {};
}

bool SigModel::setData(const QModelIndex& index, const QVariant& value, int role) {
  if (!index.isValid() || !app_ || role != Qt::CheckStateRole || !node(index)) return false;
  app_->sigOutlineSetMark(node(index), value.toInt() == Qt::Checked);
  return true;
}

Qt::ItemFlags SigModel::flags(const QModelIndex& index) const {
  if (!index.isValid()) return Qt::NoItemFlags;
  if (!node(index)) return Qt::ItemIsEnabled;
  Qt::ItemFlags f = Qt::ItemIsEnabled | Qt::ItemIsSelectable;
  if (index.column() == 0) f |= Qt::ItemIsUserCheckable;
  return f;
}

QVariant SigModel::headerData(int section, Qt::Orientation orientation, int role) const {
  if (orientation != Qt::Horizontal || role != Qt::DisplayRole) return {};
  return section == 0 ? QStringLiteral("File Types") : QStringLiteral("Extension");
}

}  // namespace ambrel::qt
