<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de">
<context>
    <name>QObject</name>
    <message>
        <source>Close</source>
        <translation>Schließen</translation>
    </message>
</context>
<context>
    <name>SchedulerNotifications</name>
    <message>
        <source>A recording is scheduled for %1. Don&apos;t turn off your PC and configure your capture area.</source>
        <translation>Für %1 ist eine Aufnahme geplant. Schalten Sie Ihren PC nicht aus und richten Sie Ihren Aufnahmebereich ein.</translation>
    </message>
    <message>
        <source>hh:mm</source>
        <translation>HH:mm &apos;Uhr&apos;</translation>
    </message>
</context>
</TS>
