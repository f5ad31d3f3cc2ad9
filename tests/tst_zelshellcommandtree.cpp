// SPDX-License-Identifier: MIT
#include "table.h"
#include "zelshellcommand.h"
#include "zelshellcommandtree_p.h"

#include <QPointer>
#include <QtTest>
#include <atomic>
#include <thread>

using Node = ZELShellCommandTree;
using Pin = ZELShellCommandPin;

class tst_ZELShellCommandTree : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void paths()
    {
        Node root("Main", nullptr, nullptr);
        auto *net = new Node("net", nullptr, &root);
        auto *ping = new Node("ping", new ZELShellCommand, net);
        QVERIFY(!root.Find("net")); // construction does not insert
        root.insert(net);
        net->insert(ping);
        QCOMPARE(root.getPath(), QString("/Main"));
        QCOMPARE(ping->getPath(), QString("/Main/net/ping"));
        QCOMPARE(ping->CommandType(), Node::Directory);
        QCOMPARE(QMetaEnum::fromType<Node::ZELShellCommandType>().valueToKey(3), "System_Execute");
    }

    void names()
    {
        Node root("Main", nullptr, nullptr);
        for (const char *name : {"ls", "Ls", "cd"})
            root.insert(new Node(name, nullptr, &root));
        QVERIFY(root.Find("Ls") != root.Find("ls"));
        QVERIFY(!root.Find(""));
        QVERIFY(!root.Find("LS"));
        QSet<Node *> seen;
        for (int i = 0; i < root.length(); ++i)
            seen.insert(root.at(i));
        QCOMPARE(seen.size(), 3);
        QVERIFY(!root.at(3) && !root.at(-1));
        QVERIFY(!root.Remove("nobody"));
        root.insert(nullptr);
        root.insert(&root);
        QCOMPARE(root.length(), 3);
    }

    void replacedChildStaysOwned()
    {
        auto *root = new Node("Main", nullptr, nullptr);
        QPointer<Node> first = new Node("a", new ZELShellCommand, root);
        QPointer<Node> second = new Node("a", new ZELShellCommand, root);
        root->insert(first);
        root->insert(second);
        root->insert(second);
        QCOMPARE(root->length(), 1);
        QCOMPARE(root->Find("a"), second.data());
        QVERIFY(first);
        // Moved to another directory it belongs there, and only there.
        Node other("Other", nullptr, nullptr);
        other.insert(first);
        delete root;
        QVERIFY(!second);
        QCOMPARE(other.Find("a"), first.data());
    }

    void childDeletedBehindItsParent()
    {
        Node root("Main", nullptr, nullptr);
        auto *first = new Node("a", nullptr, &root);
        auto *second = new Node("a", nullptr, &root);
        root.insert(first);
        root.insert(second);
        delete first;
        QCOMPARE(root.Find("a"), second);
        delete second;
        QVERIFY(!root.Find("a"));
        Node *removed = new Node("b", nullptr, &root);
        root.insert(removed);
        QCOMPARE(root.Remove("b"), removed);
        delete removed;
        QCOMPARE(root.length(), 0);
    }

    void walk_data()
    {
        Table<QString, QString> row("path", "found");
        row("nothing", "", "/Main");
        row("slash", "/", "/Main");
        row("leaf", "net/ping", "/Main/net/ping");
        row("empty pieces", "//net///ping/", "/Main/net/ping");
        row("missing", "net/pong", "");
        row("missing directory", "x/ping", "");
        row("beyond a leaf", "net/ping/x", "");
        row("case", "Net/ping", "");
    }

    void walk()
    {
        QFETCH(QString, path);
        QFETCH(QString, found);
        Node root("Main", nullptr, nullptr);
        auto *net = new Node("net", nullptr, &root);
        root.insert(net);
        net->insert(new Node("ping", new ZELShellCommand, net));
        const Pin pin = Pin::walk(&root, path.split('/'));
        QCOMPARE(pin ? pin.node()->getPath() : QString(), found);
        QVERIFY(!Pin::walk(nullptr, path.split('/')));
        QVERIFY(!Pin::find(nullptr, path));
    }

    void pinOutlivesRemoval()
    {
        Node root("Main", nullptr, nullptr);
        QPointer<Node> leaf = new Node("a", new ZELShellCommand, &root);
        QPointer<ZELShellCommand> command = leaf->Command();
        root.insert(leaf);
        Pin first = Pin::find(&root, "a");
        Pin second = std::move(first);
        Pin third = Pin::walk(&root, {"a"});
        Node::dispose(root.Remove("a"));
        QVERIFY(!Pin::find(&root, "a"));
        QVERIFY(!first && !first.command());
        third.release();
        third.release();
        QVERIFY(leaf);
        QCOMPARE(second.command(), command.data());
        second = Pin();
        QVERIFY(!leaf && !command);
    }

    void pinOutlivesRoot()
    {
        auto *root = new Node("Main", nullptr, nullptr);
        QPointer<Node> leaf = new Node("a", new ZELShellCommand, root);
        root->insert(leaf);
        Pin pin = Pin::find(root, "a");
        delete root;
        QVERIFY(leaf);
        QCOMPARE(leaf->getPath(), QString("/a"));
        QVERIFY(!leaf->Parent());
        pin.release();
        QVERIFY(!leaf);
    }

    void takeOutMeansOneNode()
    {
        Node root("Main", nullptr, nullptr);
        QPointer<Node> old = new Node("a", new ZELShellCommand, &root);
        QPointer<Node> young = new Node("a", new ZELShellCommand, &root);
        const quint64 oldSerial = ZELShellCommandTreePrivate::serialOf(old);
        root.insert(old);
        root.insert(young);
        ZELShellCommandTreePrivate::takeOut(&root, "a", oldSerial);
        QVERIFY(!old);
        QCOMPARE(root.Find("a"), young.data());
        ZELShellCommandTreePrivate::takeOut(&root, "a", oldSerial);
        QVERIFY(young);
    }

    void snapshotIsSorted()
    {
        Node root("Main", nullptr, nullptr);
        for (const char *name : {"z", "b", "a", "M"})
            root.insert(new Node(name, nullptr, &root));
        root.Find("b")->setCommandType(Node::Execute);
        QString text;
        for (const ZELShellCommandEntry &entry : ZELShellCommandTreePrivate::snapshot(&root))
            text += entry.name + QString::number(entry.type);
        QCOMPARE(text, QString("M0a0b2z0"));
        QVERIFY(ZELShellCommandTreePrivate::snapshot(nullptr).isEmpty());
    }

    void readersBesideWriters()
    {
        Node root("Main", nullptr, nullptr);
        auto *net = new Node("net", nullptr, &root);
        root.insert(net);
        std::atomic<bool> stop{false};
        std::atomic<int> found{0};
        std::vector<std::thread> threads;
        for (int reader = 0; reader < 3; ++reader) {
            threads.emplace_back([&] {
                while (!stop) {
                    const Pin pin = Pin::walk(&root, {"net", "ping"});
                    if (pin && pin.node()->getPath() == "/Main/net/ping" && !pin.command()->IsRunning())
                        ++found;
                    ZELShellCommandTreePrivate::snapshot(net);
                }
            });
        }
        for (int writer = 0; writer < 2; ++writer) {
            threads.emplace_back([&, writer] {
                for (int i = 0; i < 2000; ++i) {
                    auto *leaf = new Node("ping", new ZELShellCommand, net);
                    const quint64 serial = ZELShellCommandTreePrivate::serialOf(leaf);
                    net->insert(leaf);
                    if (writer)
                        Node::dispose(net->Remove("ping"));
                    ZELShellCommandTreePrivate::takeOut(net, "ping", serial);
                }
            });
        }
        for (int writer = 3; writer < 5; ++writer)
            threads[writer].join();
        stop = true;
        for (int reader = 0; reader < 3; ++reader)
            threads[reader].join();
        QCOMPARE(net->length(), 0);
    }
};

QTEST_GUILESS_MAIN(tst_ZELShellCommandTree)
#include "tst_zelshellcommandtree.moc"
