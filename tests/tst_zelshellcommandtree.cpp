// SPDX-License-Identifier: MIT
#include "table.h"
#include "threads.h"
#include "zelshellcommand.h"
#include "zelshellcommandtree_p.h"

#include <QPointer>
#include <QtTest>
#include <atomic>

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
        QCOMPARE(ping->getPath(), QString("/Main/net/ping"));
        QCOMPARE(ping->CommandType(), Node::Directory);
        root.insert(nullptr);
        root.insert(&root);
        QVERIFY(root.length() == 1 && root.at(0) == net);
        QVERIFY(!root.at(1) && !root.at(-1) && !root.Find("") && !root.Find("Net") && !root.Remove("nobody"));
    }

    void replacedChildStaysOwned()
    {
        auto *root = new Node("Main", nullptr, nullptr);
        QPointer<Node> first = new Node("a", new ZELShellCommand, root);
        QPointer<Node> second = new Node("a", new ZELShellCommand, root);
        auto *third = new Node("a", nullptr, root);
        for (Node *node : {first.data(), third, second.data(), second.data()})
            root->insert(node);
        QCOMPARE(root->length(), 1);
        delete third; // behind its parent
        QCOMPARE(root->Find("a"), second.data());
        QVERIFY(first);
        // Moved to another directory it belongs there, and only there.
        Node other("Other", nullptr, nullptr);
        other.insert(first);
        delete root;
        QVERIFY(!second);
        QCOMPARE(other.Find("a"), first.data());
        delete first;
        QCOMPARE(other.length(), 0);
    }

    void walk_data()
    {
        Table<QString, QString> row("path", "found");
        row("nothing", "", "/Main");
        row("empty pieces", "//net///ping/", "/Main/net/ping");
        row("missing", "net/pong", "");
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

    void pinOutlivesRemovalAndRoot()
    {
        auto *root = new Node("Main", nullptr, nullptr);
        QPointer<Node> leaf = new Node("a", new ZELShellCommand, root);
        QPointer<Node> other = new Node("b", new ZELShellCommand, root);
        QPointer<ZELShellCommand> command = leaf->Command();
        root->insert(leaf);
        root->insert(other);
        Pin first = Pin::find(root, "a");
        Pin second = std::move(first);
        Pin third = Pin::walk(root, {"a"});
        Pin last = Pin::find(root, "b");
        Node::dispose(root->Remove("a"));
        QVERIFY(!Pin::find(root, "a"));
        QVERIFY(!first && !first.command());
        third.release();
        third.release();
        QVERIFY(leaf);
        QCOMPARE(second.command(), command.data());
        second = Pin();
        QVERIFY(!leaf && !command);
        delete root;
        QVERIFY(other && !other->Parent());
        QCOMPARE(other->getPath(), QString("/b"));
        last.release();
        QVERIFY(!other);
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
        Threads readers(3, [&] {
            while (!stop) {
                const Pin pin = Pin::walk(&root, {"net", "ping"});
                if (pin && (pin.node()->getPath() != "/Main/net/ping" || pin.command()->IsRunning()))
                    qFatal("a torn command");
                ZELShellCommandTreePrivate::snapshot(net);
            }
        });
        Threads(2, [&](int writer) {
            for (int i = 0; i < 2000; ++i) {
                auto *leaf = new Node("ping", new ZELShellCommand, net);
                const quint64 serial = ZELShellCommandTreePrivate::serialOf(leaf);
                net->insert(leaf);
                if (writer)
                    Node::dispose(net->Remove("ping"));
                ZELShellCommandTreePrivate::takeOut(net, "ping", serial);
            }
        }).join();
        stop = true;
        readers.join();
        QCOMPARE(net->length(), 0);
    }
};

QTEST_GUILESS_MAIN(tst_ZELShellCommandTree)
#include "tst_zelshellcommandtree.moc"
