<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="he" sourcelanguage="en">
<context>
    <name>harbex::ContentView</name>
    <message>
        <source>Add Folder</source>
        <extracomment>Button: adds a folder to those that Harbex watches.</extracomment>
        <translation>הוספת תיקייה</translation>
    </message>
    <message>
        <source>Folders</source>
        <extracomment>Heading of the list of the folders that Harbex watches.</extracomment>
        <translation>תיקיות</translation>
    </message>
    <message>
        <source>Select a folder from the sidebar</source>
        <extracomment>In place of the rules while no folder is selected.</extracomment>
        <translation>נא לבחור תיקייה בסרגל הצד</translation>
    </message>
    <message>
        <source>Add Rule</source>
        <extracomment>Button: adds a rule to the selected folder.</extracomment>
        <translation>הוספת כלל</translation>
    </message>
    <message>
        <source>Rules</source>
        <extracomment>Heading of the list of the rules of a folder.</extracomment>
        <translation>כללים</translation>
    </message>
</context>
<context>
    <name>harbex::DirectorySelector</name>
    <message>
        <source>Select destination...</source>
        <extracomment>Read by screen readers, and shown in place of the destination of a rule that has none yet.</extracomment>
        <translation>בחירת יעד...</translation>
    </message>
</context>
<context>
    <name>harbex::FolderDialog</name>
    <message>
        <source>Select Focus Folder</source>
        <extracomment>Title of the dialog that asks for a folder, and the button that accepts it. The folder is one to watch or the destination of a rule.</extracomment>
        <translation>בחירת תיקייה</translation>
    </message>
</context>
<context>
    <name>harbex::FolderList</name>
    <message>
        <source>Folders</source>
        <extracomment>Read by screen readers: the list of the folders that Harbex watches.</extracomment>
        <translation>תיקיות</translation>
    </message>
    <message>
        <source>Delete</source>
        <extracomment>Menu entry: Harbex no longer watches the folder. The folder itself stays on the disk.</extracomment>
        <translation>הסרה</translation>
    </message>
</context>
<context>
    <name>harbex::MainWindow</name>
    <message>
        <source>Harbex</source>
        <extracomment>The name of the program. It stays in Latin letters.</extracomment>
        <translation>Harbex</translation>
    </message>
</context>
<context>
    <name>harbex::RuleRow</name>
    <message>
        <source>Name</source>
        <extracomment>What a rule compares, at the start of its row: [Name] [contains] [value] move to [folder].</extracomment>
        <translation>שם</translation>
    </message>
    <message>
        <source>Extension</source>
        <extracomment>What a rule compares, at the start of its row: [Extension] [is] [pdf] move to [folder].</extracomment>
        <translation>סיומת</translation>
    </message>
    <message>
        <source>Kind</source>
        <extracomment>What a rule compares, at the start of its row: [Kind] [Image] move to [folder].</extracomment>
        <translation>סוג</translation>
    </message>
    <message>
        <source>contains</source>
        <extracomment>Between two controls of a row, and part of its sentence: [Name] [contains] [value] move to [folder].</extracomment>
        <translation>מכיל</translation>
    </message>
    <message>
        <source>is</source>
        <extracomment>Between two controls of a row, and part of its sentence: [Extension] [is] [pdf] move to [folder].</extracomment>
        <translation>שווה ל־</translation>
    </message>
    <message>
        <source>Image</source>
        <extracomment>A kind of file: [Kind] [Image] move to [folder].</extracomment>
        <translation>תמונה</translation>
    </message>
    <message>
        <source>Video</source>
        <extracomment>A kind of file: [Kind] [Video] move to [folder].</extracomment>
        <translation>וידאו</translation>
    </message>
    <message>
        <source>Document</source>
        <extracomment>A kind of file: [Kind] [Document] move to [folder].</extracomment>
        <translation>מסמך</translation>
    </message>
    <message>
        <source>Folder</source>
        <extracomment>A folder, as a kind of what a rule moves: [Kind] [Folder] move to [folder].</extracomment>
        <translation>תיקייה</translation>
    </message>
    <message>
        <source>Audio</source>
        <extracomment>A kind of file: [Kind] [Audio] move to [folder].</extracomment>
        <translation>שמע</translation>
    </message>
    <message>
        <source>Application</source>
        <extracomment>A program, as a kind of file: [Kind] [Application] move to [folder].</extracomment>
        <translation>יישום</translation>
    </message>
    <message>
        <source>Field</source>
        <extracomment>Read by screen readers: the list with Name, Extension and Kind.</extracomment>
        <translation>שדה</translation>
    </message>
    <message>
        <source>Operator</source>
        <extracomment>Read by screen readers: the list with &quot;contains&quot; and &quot;is&quot;.</extracomment>
        <translation>אופרטור</translation>
    </message>
    <message>
        <source>Default: All Files</source>
        <extracomment>Shown in the empty value field: without a value, a rule takes all files.</extracomment>
        <translation>ברירת מחדל: כל הקבצים</translation>
    </message>
    <message>
        <source>Value</source>
        <extracomment>Read by screen readers: the field after &quot;contains&quot; or &quot;is&quot;.</extracomment>
        <translation>ערך</translation>
    </message>
    <message>
        <source>move to</source>
        <extracomment>Between two controls of a row, and part of its sentence: [Name] [contains] [value] move to [folder].</extracomment>
        <translation>העברה אל</translation>
    </message>
    <message>
        <source>Delete</source>
        <extracomment>Read by screen readers: the button that deletes a rule.</extracomment>
        <translation>מחיקה</translation>
    </message>
</context>
<context>
    <name>harbex::StatusItem</name>
    <message>
        <source>Open Harbex</source>
        <extracomment>Entry of the menu in the tray. &quot;Harbex&quot; is the name of the program.</extracomment>
        <translation>פתיחת Harbex</translation>
    </message>
    <message>
        <source>Quit</source>
        <extracomment>Entry of the menu in the tray: ends the program.</extracomment>
        <translation>יציאה</translation>
    </message>
    <message>
        <source>Harbex</source>
        <extracomment>The name of the program. It stays in Latin letters.</extracomment>
        <translation>Harbex</translation>
    </message>
</context>
</TS>
