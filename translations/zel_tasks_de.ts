<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de_DE">
<context>
    <name>zel::BaseTask</name>
    <message>
        <source>The task was destroyed before it finished.</source>
        <translation>Die Aufgabe wurde zerstört, bevor sie fertig war.</translation>
    </message>
    <message>
        <source>Canceled</source>
        <translation>Abgebrochen</translation>
    </message>
</context>
<context>
    <name>zel::ComplexTask</name>
    <message>
        <source>The queue did not take the task.</source>
        <translation>Die Warteschlange hat die Aufgabe nicht angenommen.</translation>
    </message>
</context>
<context>
    <name>zel::Error</name>
    <message>
        <source>General error</source>
        <translation>Allgemeiner Fehler</translation>
    </message>
    <message>
        <source>Invalid argument</source>
        <translation>Ungültiges Argument</translation>
    </message>
    <message>
        <source>Not possible in the present state</source>
        <translation>Im jetzigen Zustand nicht möglich</translation>
    </message>
    <message>
        <source>Not supported</source>
        <translation>Nicht unterstützt</translation>
    </message>
    <message>
        <source>Out of resources</source>
        <translation>Betriebsmittel erschöpft</translation>
    </message>
    <message>
        <source>Not found</source>
        <translation>Nicht gefunden</translation>
    </message>
    <message>
        <source>Already exists</source>
        <translation>Schon vorhanden</translation>
    </message>
    <message>
        <source>Access denied</source>
        <translation>Zugriff verweigert</translation>
    </message>
    <message>
        <source>Canceled</source>
        <translation>Abgebrochen</translation>
    </message>
    <message>
        <source>Interrupted</source>
        <translation>Unterbrochen</translation>
    </message>
    <message>
        <source>Timed out</source>
        <translation>Zeit überschritten</translation>
    </message>
    <message>
        <source>Busy</source>
        <translation>Belegt</translation>
    </message>
    <message>
        <source>Read error</source>
        <translation>Lesefehler</translation>
    </message>
    <message>
        <source>Write error</source>
        <translation>Schreibfehler</translation>
    </message>
    <message>
        <source>Invalid format</source>
        <translation>Ungültiges Format</translation>
    </message>
    <message>
        <source>Connection error</source>
        <translation>Verbindungsfehler</translation>
    </message>
    <message>
        <source>Protocol error</source>
        <translation>Protokollfehler</translation>
    </message>
    <message>
        <source>Error %1</source>
        <translation>Fehler %1</translation>
    </message>
</context>
<context>
    <name>zel::GroupTask</name>
    <message>
        <source>The group for the task was already finished.</source>
        <translation>Die Gruppe für die Aufgabe war schon beendet.</translation>
    </message>
</context>
<context>
    <name>zel::Task</name>
    <message>
        <source>The working thread could not be started.</source>
        <translation>Der Arbeitsthread konnte nicht gestartet werden.</translation>
    </message>
    <message>
        <source>Task is not running</source>
        <translation>Die Aufgabe läuft nicht</translation>
    </message>
</context>
</TS>
