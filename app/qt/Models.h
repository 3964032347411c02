#pragma once
// The controller's tables, its recovered tree and its signature tree as Qt
// item models. They hold no data of their own: every cell is asked of the
// controller when it is drawn.
#include <QAbstractItemModel>
#include <QAbstractTableModel>
#include <QHash>
#include <QIcon>
#include <QStringList>
#include <QTimer>
#include <QTreeView>

#include <unordered_map>
#include <vector>

#include "core/AppController.h"

namespace ambrel::qt {

class TableModel : public QAbstractTableModel {
  Q_OBJECT
 public:
  // columns: the controller's column identifiers, shown as they are.
  TableModel(AppController*& app, Table table, QStringList columns, QObject* parent = nullptr);
  Table table() const { return table_; }
  void reload();

  int rowCount(const QModelIndex& parent = {}) const override;
  int columnCount(const QModelIndex& parent = {}) const override;
  QVariant data(const QModelIndex& index, int role) const override;
  QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

 private:
  AppController*& app_;
  Table table_;
  QStringList columns_;
};

// The recovered tree, lazily: a folder's rows come in batches as the view
// asks for them, so a folder of a million entries opens at once. An index's
// internal pointer is its HDIR, with bit 0 set on an entry that has no
// children: the view asks that of every row on each layout, and reading it
// from the index spares a visit to a million scattered entries.
class TreeModel : public QAbstractItemModel {
  Q_OBJECT
 public:
  enum Column { Files, Mark, Size, FilesCount, ModificationDate, CreateDate, ColumnCount };
  static constexpr int kBatch = 2000;

  explicit TreeModel(AppController*& app, QObject* parent = nullptr);

  void reload();
  void reloadItem(const HDIR* item, bool children);
  // The item's index, fetching the rows above it on the way (invalid when
  // the item is not in the tree shown).
  QModelIndex indexOf(const HDIR* item);
  static HDIR* item(const QModelIndex& index) {
    return reinterpret_cast<HDIR*>(reinterpret_cast<quintptr>(index.internalPointer()) & ~quintptr{1});
  }
  static bool isLeaf(const QModelIndex& index) { return index.internalId() & 1; }

  QModelIndex index(int row, int column, const QModelIndex& parent = {}) const override;
  QModelIndex parent(const QModelIndex& child) const override;
  int rowCount(const QModelIndex& parent = {}) const override;
  int columnCount(const QModelIndex& parent = {}) const override;
  bool hasChildren(const QModelIndex& parent = {}) const override;
  bool canFetchMore(const QModelIndex& parent) const override;
  void fetchMore(const QModelIndex& parent) override;
  QVariant data(const QModelIndex& index, int role) const override;
  bool setData(const QModelIndex& index, const QVariant& value, int role) override;
  Qt::ItemFlags flags(const QModelIndex& index) const override;
  QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

 private:
  // A folder some view has looked into: its own row (once known) and, per
  // fetched row, whether that child has no children.
  struct Folder {
    int row = -1;
    std::vector<bool> leaf;
    int fetched() const { return static_cast<int>(leaf.size()); }
  };
  Folder* folder(const HDIR* item) const;
  int rowOf(const HDIR* item) const;
  QModelIndex indexFor(const HDIR* item, int column) const;
  QModelIndex make(int row, int column, const HDIR* item, bool leaf) const;
  void changedBelow(const HDIR* folder);
  QIcon iconFor(const HDIR* item) const;

  AppController*& app_;
  // Node-based: a Folder stays where it is while others are added.
  mutable std::unordered_map<const HDIR*, Folder> folders_;
  mutable const HDIR* lastKey_ = nullptr;
  mutable Folder* last_ = nullptr;
  mutable QHash<QString, QIcon> icons_;
};

// The recovered tree's view. QTreeView fetches more of a folder only when
// the tree's very last row is in it; this one fetches any folder whose last
// fetched row comes in sight, so a huge folder among others scrolls to its end.
class TreeView : public QTreeView {
  Q_OBJECT
 public:
  explicit TreeView(QWidget* parent = nullptr);
  void setModel(QAbstractItemModel* model) override;

 protected:
  void scrollContentsBy(int dx, int dy) override;
  void resizeEvent(QResizeEvent* event) override;
  void dataChanged(const QModelIndex& topLeft, const QModelIndex& bottomRight, const QList<int>& roles = {}) override;

 private:
  void fetchInSight();
  QTimer fetch_;
};

// The signature database's categories and file types, with check boxes; a
// single placeholder row (null node) tells what to do while it is empty.
class SigModel : public QAbstractItemModel {
  Q_OBJECT
 public:
  explicit SigModel(AppController*& app, QObject* parent = nullptr);
  void reload();
  void reloadItem(const SigNode* node);
  static SigNode* node(const QModelIndex& index) { return static_cast<SigNode*>(index.internalPointer()); }

  QModelIndex index(int row, int column, const QModelIndex& parent = {}) const override;
  QModelIndex parent(const QModelIndex& child) const override;
  int rowCount(const QModelIndex& parent = {}) const override;
  int columnCount(const QModelIndex& parent = {}) const override;
  QVariant data(const QModelIndex& index, int role) const override;
  bool setData(const QModelIndex& index, const QVariant& value, int role) override;
  Qt::ItemFlags flags(const QModelIndex& index) const override;
  QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

 private:
  int rowOf(const SigNode* node) const;
  AppController*& app_;
};

QString qs(const std::string& s);

}  // namespace ambrel::qt
