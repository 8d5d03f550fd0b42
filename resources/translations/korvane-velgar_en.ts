<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="en">
<context>
    <name>Localizable</name>
    <message><source>FOUND</source><translation>Virus found</translation></message>
    <message><source>REMOVED</source><translation>Infected file moved to the Trash</translation></message>
    <message><source>QUARANTINED</source><translation>Infected file quarantined</translation></message>
    <message><source>SUCCESSFUL</source><translation>Virus definitions updated</translation></message>
    <message><source>ALREADY_UP_TO_DATE</source><translation>Virus definitions are already up to date</translation></message>
    <message><source>UNKNOWN_ERROR</source><translation>The virus definitions could not be updated. The update log has the details.</translation></message>
    <message><source>CLAMDSCAN_ERROR</source><translation>Korvane Velgar cannot reach its scanning engine (ClamAV), so new files are not being checked for viruses. Run “velgarctl setup” to repair the engine, then restart Korvane Velgar.</translation></message>
    <message><source>SERVICE_STANDIN</source><translation>The system’s virus scanning service (clamd) does not answer. Korvane Velgar checks new files with a scanning engine of your own until the service is back.</translation></message>
    <message><source>FSEVENT_NOT_SETUID</source><translation>Korvane Velgar needs administrator rights once to install its file-event helper. Please enter your password when asked.</translation></message>
    <message><source>FSEVENT_NOT_INSTALLED</source><translation>Korvane Velgar cannot watch your folders: its file-event helper needs to be installed by an administrator. The scan log says how.</translation></message>
    <message><source>WAIT</source><translation>Please wait…</translation></message>
</context>
</TS>
