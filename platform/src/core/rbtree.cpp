// rbtree.cpp -- red-black trees over the callers' own entries.
//
// Absent children are null (there is no shared sentinel node), so an entry's
// links only ever point at other entries of the same tree.
#include "qor/rbtree.h"

#include <cstring>
#include <new>

namespace {

constexpr int RBT_RED = 0;
constexpr int RBT_BLACK = 1;
constexpr size_t RBT_NAME_MAX = 32;

}  // namespace

struct qorRBTree {
    char name[RBT_NAME_MAX];
    QOR_RBT_COMPARE compare;
    QOR_RBT_FREE release;
    QOR_RBT_NODE* root;
    uint32_t count;
};

namespace {

bool rbtIsRed(const QOR_RBT_NODE* node) { return node && node->color == RBT_RED; }

void rbtReplaceChild(qorRBTree* tree, QOR_RBT_NODE* parent, QOR_RBT_NODE* old, QOR_RBT_NODE* replacement) {
    if (!parent)
        tree->root = replacement;
    else if (parent->left == old)
        parent->left = replacement;
    else
        parent->right = replacement;
}

void rbtRotateLeft(qorRBTree* tree, QOR_RBT_NODE* x) {
    QOR_RBT_NODE* y = x->right;
    x->right = y->left;
    if (y->left) y->left->parent = x;
    y->parent = x->parent;
    rbtReplaceChild(tree, x->parent, x, y);
    y->left = x;
    x->parent = y;
}

void rbtRotateRight(qorRBTree* tree, QOR_RBT_NODE* x) {
    QOR_RBT_NODE* y = x->left;
    x->left = y->right;
    if (y->right) y->right->parent = x;
    y->parent = x->parent;
    rbtReplaceChild(tree, x->parent, x, y);
    y->right = x;
    x->parent = y;
}

QOR_RBT_NODE* rbtMinimum(QOR_RBT_NODE* node) {
    while (node && node->left) node = node->left;
    return node;
}

// Restores the colours after `node` was hung as a red leaf.
void rbtInsertFixup(qorRBTree* tree, QOR_RBT_NODE* node) {
    while (rbtIsRed(node->parent)) {
        QOR_RBT_NODE* parent = node->parent;
        QOR_RBT_NODE* grand = parent->parent;  // a red node is never the root
        const bool parentIsLeft = parent == grand->left;
        QOR_RBT_NODE* uncle = parentIsLeft ? grand->right : grand->left;
        if (rbtIsRed(uncle)) {
            parent->color = RBT_BLACK;
            uncle->color = RBT_BLACK;
            grand->color = RBT_RED;
            node = grand;
            continue;
        }
        if (parentIsLeft && node == parent->right) {
            rbtRotateLeft(tree, parent);
            parent = node;
        } else if (!parentIsLeft && node == parent->left) {
            rbtRotateRight(tree, parent);
            parent = node;
        }
        parent->color = RBT_BLACK;
        grand->color = RBT_RED;
        if (parentIsLeft)
            rbtRotateRight(tree, grand);
        else
            rbtRotateLeft(tree, grand);
        break;
    }
    tree->root->color = RBT_BLACK;
}

// One step of the removal fixup for a doubly black `node` that is the
// left child of `parent`; returns the node still doubly black, or null.
QOR_RBT_NODE* rbtRemoveFixupLeft(qorRBTree* tree, QOR_RBT_NODE* parent) {
    QOR_RBT_NODE* sibling = parent->right;  // non-null: it carries the missing black
    if (rbtIsRed(sibling)) {
        sibling->color = RBT_BLACK;
        parent->color = RBT_RED;
        rbtRotateLeft(tree, parent);
        sibling = parent->right;
    }
    if (!rbtIsRed(sibling->left) && !rbtIsRed(sibling->right)) {
        sibling->color = RBT_RED;
        return parent;
    }
    if (!rbtIsRed(sibling->right)) {
        sibling->left->color = RBT_BLACK;
        sibling->color = RBT_RED;
        rbtRotateRight(tree, sibling);
        sibling = parent->right;
    }
    sibling->color = parent->color;
    parent->color = RBT_BLACK;
    sibling->right->color = RBT_BLACK;
    rbtRotateLeft(tree, parent);
    return nullptr;
}

// The mirror image of rbtRemoveFixupLeft.
QOR_RBT_NODE* rbtRemoveFixupRight(qorRBTree* tree, QOR_RBT_NODE* parent) {
    QOR_RBT_NODE* sibling = parent->left;
    if (rbtIsRed(sibling)) {
        sibling->color = RBT_BLACK;
        parent->color = RBT_RED;
        rbtRotateRight(tree, parent);
        sibling = parent->left;
    }
    if (!rbtIsRed(sibling->left) && !rbtIsRed(sibling->right)) {
        sibling->color = RBT_RED;
        return parent;
    }
    if (!rbtIsRed(sibling->left)) {
        sibling->right->color = RBT_BLACK;
        sibling->color = RBT_RED;
        rbtRotateLeft(tree, sibling);
        sibling = parent->left;
    }
    sibling->color = parent->color;
    parent->color = RBT_BLACK;
    sibling->left->color = RBT_BLACK;
    rbtRotateRight(tree, parent);
    return nullptr;
}

// `node` (possibly null) lost a black ancestor under `parent`.
void rbtRemoveFixup(qorRBTree* tree, QOR_RBT_NODE* node, QOR_RBT_NODE* parent) {
    while (node != tree->root && !rbtIsRed(node)) {
        QOR_RBT_NODE* next = node == parent->left ? rbtRemoveFixupLeft(tree, parent)
                                                  : rbtRemoveFixupRight(tree, parent);
        if (!next) {
            node = tree->root;
            break;
        }
        node = next;
        parent = node->parent;
    }
    if (node) node->color = RBT_BLACK;
}

// Puts `replacement` (possibly null) where `old` hangs.
void rbtTransplant(qorRBTree* tree, QOR_RBT_NODE* old, QOR_RBT_NODE* replacement) {
    rbtReplaceChild(tree, old->parent, old, replacement);
    if (replacement) replacement->parent = old->parent;
}

void rbtUnlink(qorRBTree* tree, QOR_RBT_NODE* node) {
    QOR_RBT_NODE* moved;        // takes the place of the node that leaves its position
    QOR_RBT_NODE* movedParent;  // its parent afterwards (moved may be null)
    int lostColor = node->color;
    if (!node->left || !node->right) {
        moved = node->left ? node->left : node->right;
        movedParent = node->parent;
        rbtTransplant(tree, node, moved);
    } else {
        QOR_RBT_NODE* successor = rbtMinimum(node->right);
        lostColor = successor->color;
        moved = successor->right;
        if (successor->parent == node) {
            movedParent = successor;
        } else {
            movedParent = successor->parent;
            rbtTransplant(tree, successor, successor->right);
            successor->right = node->right;
            successor->right->parent = successor;
        }
        rbtTransplant(tree, node, successor);
        successor->left = node->left;
        successor->left->parent = successor;
        successor->color = node->color;
    }
    if (lostColor == RBT_BLACK) rbtRemoveFixup(tree, moved, movedParent);
}

void rbtClearLinks(QOR_RBT_NODE* node) {
    node->left = nullptr;
    node->right = nullptr;
    node->parent = nullptr;
}

}  // namespace

int _RBTCompareUL(const void* a, const void* b) {
    // The switch OS's unsigned long is 32 bits: keys are 4-byte ifIndex blocks.
    uint32_t x = 0, y = 0;
    std::memcpy(&x, a, sizeof x);
    std::memcpy(&y, b, sizeof y);
    return x < y ? -1 : (x > y ? 1 : 0);
}

QOR_RBT_HANDLE qorRBTreeCreate(const char* name, QOR_RBT_COMPARE compare, QOR_RBT_ALLOC alloc,
                               QOR_RBT_FREE release) {
    if (!compare || !alloc || !release) return nullptr;
    void* block = alloc(sizeof(qorRBTree));
    if (!block) return nullptr;
    auto* tree = new (block) qorRBTree{};
    if (name) {
        std::strncpy(tree->name, name, RBT_NAME_MAX - 1);
        tree->name[RBT_NAME_MAX - 1] = '\0';
    }
    tree->compare = compare;
    tree->release = release;
    return tree;
}

int qorRBTreeInsert(QOR_RBT_HANDLE tree, QOR_RBT_NODE* entry) {
    if (!tree || !entry || !entry->key) return -1;
    QOR_RBT_NODE* parent = nullptr;
    QOR_RBT_NODE** link = &tree->root;
    while (*link) {
        parent = *link;
        const int order = tree->compare(entry->key, parent->key);
        if (order == 0) return -1;
        link = order < 0 ? &parent->left : &parent->right;
    }
    rbtClearLinks(entry);
    entry->parent = parent;
    entry->color = RBT_RED;
    *link = entry;
    rbtInsertFixup(tree, entry);
    ++tree->count;
    return 0;
}

QOR_RBT_NODE* qorRBTreeGetExact(QOR_RBT_HANDLE tree, const void* key) {
    if (!tree || !key) return nullptr;
    QOR_RBT_NODE* node = tree->root;
    while (node) {
        const int order = tree->compare(key, node->key);
        if (order == 0) return node;
        node = order < 0 ? node->left : node->right;
    }
    return nullptr;
}

QOR_RBT_NODE* qorRBTreeGetNext(QOR_RBT_HANDLE tree, const void* key) {
    if (!tree) return nullptr;
    if (!key) return rbtMinimum(tree->root);
    QOR_RBT_NODE* following = nullptr;
    QOR_RBT_NODE* node = tree->root;
    while (node) {
        if (tree->compare(key, node->key) < 0) {
            following = node;
            node = node->left;
        } else {
            node = node->right;
        }
    }
    return following;
}

QOR_RBT_NODE* qorRBTreeRemove(QOR_RBT_HANDLE tree, const void* key) {
    QOR_RBT_NODE* node = qorRBTreeGetExact(tree, key);
    if (!node) return nullptr;
    rbtUnlink(tree, node);
    rbtClearLinks(node);
    --tree->count;
    return node;
}

uint32_t qorRBTreeCount(QOR_RBT_HANDLE tree) { return tree ? tree->count : 0; }

int qorRBTreeDestroy(QOR_RBT_HANDLE tree, void (*release_entry)(QOR_RBT_NODE*)) {
    if (!tree) return -1;
    // Releases the entries leaves first, climbing by the parent links, so an
    // entry is never touched after release_entry has had it.
    QOR_RBT_NODE* node = tree->root;
    while (node) {
        if (node->left) {
            node = node->left;
            continue;
        }
        if (node->right) {
            node = node->right;
            continue;
        }
        QOR_RBT_NODE* parent = node->parent;
        if (parent) (parent->left == node ? parent->left : parent->right) = nullptr;
        node->parent = nullptr;
        if (release_entry) release_entry(node);
        node = parent;
    }
    const QOR_RBT_FREE release = tree->release;
    tree->~qorRBTree();
    release(tree);
    return 0;
}
